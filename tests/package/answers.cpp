#include <pgm/pgm_python/pgm_python_mgr.h>

#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

// Bytes: they go in by pointer and size, and come back in a buffer that is the caller's.
void make_certificate(std::vector<unsigned char> content) {
    unsigned long size = 0;
    const std::unique_ptr<unsigned char[]> certificate(
        PGM_PYTHON_MGR::generate_compact_cert(size, 1, 2, content.data(), content.size(), "", ""));
    std::cout << "certificate: " << size << " bytes\n";
}

// Maps: the script gets each as a dict, in the order of its keys.
void hash_block_ram(const std::string& bitstream) {
    const std::map<std::string, std::string> none;
    unsigned long size = 0;
    PGM_PYTHON_MGR manager;  // this one operation is not static
    const std::vector<unsigned char> hash =
        manager.get_nwfmt_data("network_format.py", "get_bram_hash_and_size", bitstream, none,
                               {{"3.1", "256"}}, "sha256", none, none, size);
    std::cout << "block RAM: " << size << " bytes, hash of " << hash.size() << " bytes\n";
}

// Vectors: the script finds the texts in its command line.
void change_bitstream(const std::vector<unsigned char>& bitstream) {
    unsigned long size = 0;
    const std::unique_ptr<unsigned char[]> changed(
        PGM_PYTHON_MGR::modify_bitstream(bitstream.data(), bitstream.size(), size, "itool",
                                         "change_bitstream", {"--set", "0x75CF=1234"}));
    std::cout << "changed bitstream: " << size << " bytes\n";
}
