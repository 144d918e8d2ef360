-- Parts on the shelves of an invented laboratory; SQLite and MariaDB both take it.
CREATE TABLE parts (opn VARCHAR(32) NOT NULL PRIMARY KEY, family VARCHAR(16) NOT NULL, shelf INTEGER, stock INTEGER NOT NULL);
INSERT INTO parts VALUES
    ('NRV010-C100-I2', 'norvane', 1, 120),
    ('NRV010-C100-E3', 'norvane', 1, 14),
    ('NRV025-F256-I2', 'norvane', 2, 36),
    ('NRV060-F484-I2', 'norvane', 2, 8),
    ('NRV060-F484-ES', 'norvane', NULL, 3),
    ('PLM120-F780-I1', 'pelimor', 4, 5),
    ('PLM240-F1152-I1', 'pelimor', 4, 2),
    ('TRN04-Q48-C1', 'tarn', 7, 400);
