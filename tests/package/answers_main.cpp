#include <fstream>
#include <iterator>
#include <string>
#include <vector>

void make_certificate(std::vector<unsigned char> content);
void hash_block_ram(const std::string& bitstream);
void change_bitstream(const std::vector<unsigned char>& bitstream);

// answers BITSTREAM [STEP]: one of the three steps, or all in one process.
int main(int argc, char** argv) {
    const std::string step = argc > 2 ? argv[2] : "";
    std::ifstream stream(argv[1], std::ios::binary);
    const std::vector<unsigned char> bitstream((std::istreambuf_iterator<char>(stream)),
                                               std::istreambuf_iterator<char>());
    if (step.empty() || step == "certificate") {
        make_certificate({1, 2, 3, 4, 5, 6, 7, 8});
    }
    if (step.empty() || step == "hash") {
        hash_block_ram(argv[1]);
    }
    if (step.empty() || step == "change") {
        change_bitstream(bitstream);
    }
}
