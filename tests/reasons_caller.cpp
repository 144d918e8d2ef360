// Calls one failing script many times and counts whose reasons its calls show:
//
//     reasons_caller NAME CALLS
//
// generate_rim of the installation in force gets NAME and the number of the call; its script fails
// and tells "NAME NUMBER" and "NAME again". Prints "own N, other N, none N".

#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "pgm/pgm_python/pgm_python_mgr.h"
#include "zel/zel_msg/zel_msg.h"

namespace {

// Keeps the reasons of a call.
class REASONS : public MSG_RECEIVER {
public:
    void line(int /*type*/, const std::string& text) override { std::cerr << text << '\n'; }
    void post(unsigned long number, const std::string& text) override {
        constexpr unsigned long reason = 20353;
        if (number == reason) {
            reasons.push_back(text);
        }
    }

    void internal_error(const INTERNAL_ERROR& error) override {
        std::cerr << to_text(error) << '\n';
        std::exit(3);
    }

    std::vector<std::string> reasons;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: reasons_caller NAME CALLS\n";
        return 2;
    }
    const std::string name = argv[1];
    const int calls = std::atoi(argv[2]);
    static REASONS receiver;
    MSG_RECEIVER::set(&receiver);
    int own = 0;
    int other = 0;
    int none = 0;
    for (int call = 0; call < calls; ++call) {
        receiver.reasons.clear();
        const std::string number = std::to_string(call);
        if (PGM_PYTHON_MGR::generate_rim(name, number, 1, "out")) {
            std::cerr << "the script did not fail\n";
            return 1;
        }
        if (receiver.reasons == std::vector<std::string>{name + " " + number, name + " again"}) {
            ++own;
        } else if (receiver.reasons.empty()) {
            ++none;
        } else {
            ++other;
        }
    }
    std::cout << "own " << own << ", other " << other << ", none " << none << '\n';
    return 0;
}
