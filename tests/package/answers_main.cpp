#include <fstream>
#include <iterator>
#include <string>
#include <vector>

void make_certificate(std::vector<unsigned char> content);
void hash_block_ram(const std::string& bitstream);
void change_bitstream(const std::vector<unsigned char>& bitstream);

// answers BITSTREAM
int main(int, char** argv) {
    std::ifstream stream(argv[1], std::ios::binary);
    const std::vector<unsigned char> bitstream((std::istreambuf_iterator<char>(stream)),
                                               std::istreambuf_iterator<char>());
    make_certificate({1, 2, 3, 4, 5, 6, 7, 8});
    hash_block_ram(argv[1]);
    change_bitstream(bitstream);
}
