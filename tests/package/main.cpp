#include <pgm/pgm_python/pgm_python_mgr.h>
#include <zel/zel_msg/zel_msg.h>

#include <clocale>
#include <iostream>
#include <stdexcept>

class RECEIVER : public MSG_RECEIVER {
    void line(int, const std::string& text) override { std::cerr << text << '\n'; }
    void post(unsigned long number, const std::string& text) override {
        std::cerr << number << ": " << text << '\n';
    }
    void internal_error(const INTERNAL_ERROR& error) override {
        throw std::runtime_error(to_text(error));
    }
};

int main(int argc, char** argv) try {
    std::setlocale(LC_ALL, "");  // for paths outside ASCII
    static RECEIVER receiver;
    MSG_RECEIVER::set(&receiver);
    const unsigned long code = PGM_PYTHON_MGR::query_opn_name(argc > 1 ? argv[1] : "");
    if (code == 0xFFFFFFFF) {
        return 1;  // the reasons have been reported
    }
    std::cout << code << '\n';
} catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 3;
}
