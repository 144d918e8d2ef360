#include "bench/contestant.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "zel/zel_msg/zel_msg.h"

namespace {

// Keeps the reasons of a failed call.
class RECEIVER : public MSG_RECEIVER {
public:
    RECEIVER() { MSG_RECEIVER::set(this); }
    ~RECEIVER() override { MSG_RECEIVER::set(nullptr); }

    void line(int, const std::string& text) override { stop(text); }
    void post(unsigned long number, const std::string& text) override {
        if (number == 20353) {
            reasons.push_back(text);
        }
    }
    void internal_error(const INTERNAL_ERROR& error) override { stop(to_text(error)); }

    std::vector<std::string> reasons;
};

class LIBRARY : public CONTESTANT {
public:
    std::string name() const override { return "library"; }

    unsigned long query_opn_name(const std::string& name) override {
        return PGM_PYTHON_MGR::query_opn_name(name);
    }

    std::string get_username(const std::string& user) override {
        return PGM_PYTHON_MGR::get_username(user);
    }

    BUFFER generate_compact_cert(unsigned long first_number, unsigned long second_number,
                                 const std::vector<unsigned char>& content) override {
        unsigned long size = 0;
        BUFFER certificate;
        certificate.data.reset(PGM_PYTHON_MGR::generate_compact_cert(
            size, first_number, second_number, const_cast<unsigned char*>(content.data()),
            content.size(), "", ""));
        certificate.size = size;
        return certificate;
    }

    BUFFER modify_bitstream(const std::vector<unsigned char>& data) override {
        unsigned long size = 0;
        BUFFER changed;
        changed.data.reset(PGM_PYTHON_MGR::modify_bitstream(data.data(), data.size(), size, "itool",
                                                            "change_bitstream", {}));
        changed.size = size;
        return changed;
    }

    std::vector<unsigned char> get_chunks(const std::string& text,
                                          const std::string& kind) override {
        unsigned long size = 0;
        return PGM_PYTHON_MGR().get_nwfmt_data("network_format.py", "get_bram_chunks", text, {}, {},
                                               kind, {}, {}, size);
    }

    std::vector<unsigned char> get_hash_and_size(const std::string& kind, const TEXT_MAP& map,
                                                 unsigned long& size) override {
        return PGM_PYTHON_MGR().get_nwfmt_data("network_format.py", "get_bram_hash_and_size", "",
                                               map, map, kind, map, map, size);
    }

    bool generate_rim(const std::string& family, std::vector<std::string>& reasons) override {
        m_receiver.reasons.clear();
        const bool made = PGM_PYTHON_MGR::generate_rim(rim_input, family, rim_number, rim_output);
        reasons = m_receiver.reasons;
        return made;
    }

private:
    RECEIVER m_receiver;
};

}  // namespace

std::unique_ptr<CONTESTANT> make_library() {
    return std::unique_ptr<CONTESTANT>(new LIBRARY);
}
