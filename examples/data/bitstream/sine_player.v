// Plays the samples of sine.hex on one pin, through a first-order sigma-delta converter.
module sine_player(input clk, output reg out, output [3:0] led);
    reg [7:0] divider = 0;
    reg [7:0] position = 0;
    reg [15:0] sum = 0;
    wire [15:0] sample;

    SB_RAM40_4K #(
        .READ_MODE(0),
        .WRITE_MODE(0),
        `include "sine_rom.vh"
    ) samples (
        .RCLK(clk), .RCLKE(1'b1), .RE(1'b1), .RADDR({3'b0, position}), .RDATA(sample),
        .WCLK(clk), .WCLKE(1'b0), .WE(1'b0), .WADDR(11'b0), .WDATA(16'b0), .MASK(16'b0)
    );

    always @(posedge clk) begin
        divider <= divider + 1;
        if (divider == 0)
            position <= position + 1;
        {out, sum} <= sum + sample;
    end

    assign led = sample[15:12];
endmodule
