"""execute_mysql against a real MariaDB server, started on a private folder and a free loopback port.

database_server_test.py PGM_PYTHON_CALL
"""

import os
import subprocess
import sys
import unittest

import example_scripts_test as scripts

PROGRAM = None


class ServerTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if hasattr(scripts.ServerTest, "__unittest_skip_why__"):
            raise unittest.SkipTest(scripts.ServerTest.__unittest_skip_why__)
        scripts.ServerTest.setUpClass.__func__(cls)

    @classmethod
    def tearDownClass(cls):
        scripts.ServerTest.tearDownClass.__func__(cls)

    def ask(self, *arguments):
        return subprocess.run([PROGRAM, "execute_mysql", "--", "--host=127.0.0.1", "--port=%d" % self.port,
                               "--user=root", "--database=shop", *arguments], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=120)

    def test_the_server_answers(self):
        made = self.ask("CREATE TABLE IF NOT EXISTS parts (opn VARCHAR(20), stock INT)")
        self.assertEqual((made.returncode, made.stdout, made.stderr), (0, b"", b""))
        filled = self.ask("INSERT INTO parts VALUES ('NRV010-C100-I2', 12), ('Grün 24', 3)")
        self.assertEqual((filled.returncode, filled.stderr), (0, b""))
        asked = self.ask("SELECT opn, stock FROM parts ORDER BY stock")
        self.assertEqual((asked.returncode, asked.stdout.decode("utf-8"), asked.stderr),
                         (0, "opn\tstock\nGrün 24\t3\nNRV010-C100-I2\t12\n", b""))

    def test_what_the_server_refuses_is_a_failed_call(self):
        refused = self.ask("SELECT * FROM nothing")
        self.assertEqual((refused.returncode, refused.stdout), (1, b""))
        printed = refused.stderr.decode("utf-8")
        self.assertIn("Table 'shop.nothing' doesn't exist", printed)
        self.assertTrue(printed.startswith("Traceback (most recent call last):\n"), printed)
        self.assertTrue(printed.endswith("error: Fail to call mysql function\n"), printed)


if __name__ == "__main__":
    PROGRAM = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
