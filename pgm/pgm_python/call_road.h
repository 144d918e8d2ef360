// The part of a bridge call's road that needs Python, from the interpreter's start to its end:
//
//     interpreter . argument vector . search path . module name . import . function .
//     late listener . argument tuple . call . answer . [late: completion] .
//     release of tuple, function, module, name . interpreter finalised . argument vector released
//
// What ends a scope is done by leaving the scope: a throwing report anywhere on the road finds
// everything before it undone in reverse.

#ifndef PGM_PGM_PYTHON_CALL_ROAD_H
#define PGM_PGM_PYTHON_CALL_ROAD_H

#include <cstddef>
#include <string>
#include <vector>

#include "pgm/pgm_python/bridge.h"
#include "pgm/pgm_python/bridge_values.h"
#include "pgm/pgm_python/settings.h"

// A row of the argument tuple, with the checks that its object was made (none for the singletons)
// and that the tuple took it.
struct ARGUMENT_ROW {
    ARGUMENT argument;
    CHECK made;
    CHECK placed;
};

// All that the road needs to know of a call. What the texts and rows refer to must outlive it.
struct CALL_REQUEST {
    explicit CALL_REQUEST(const BRIDGE& facts) : bridge(facts) {}

    BRIDGE bridge;
    std::string script;    // the script's path
    std::string function;  // the name of the function to call
    std::vector<std::string> script_arguments;
    CHECK tuple_made;  // a null text: the function is called without a tuple
    std::vector<ARGUMENT_ROW> rows;
    ANSWER_FORM form;
    SETTINGS settings;
    // The announced channel of a listener that has been started; empty for none.
    std::string announced_channel;
};

// What of a call is not Python's: its listener. The road asks for it at the places that the bridge
// names.
class ROAD_SURROUNDINGS {
public:
    ROAD_SURROUNDINGS() = default;
    virtual ~ROAD_SURROUNDINGS() = default;
    ROAD_SURROUNDINGS(const ROAD_SURROUNDINGS&) = delete;
    ROAD_SURROUNDINGS& operator=(const ROAD_SURROUNDINGS&) = delete;

    // Starts a late listener; it listens, or has failed to, on return. Returns the channel that the
    // script's environment is to name (BACK_CHANNEL::announced), empty for none.
    virtual std::string start_back_channel() = 0;

    // Hears how far the road has come: the module's name is known; the function is about to be
    // called.
    virtual void hear_of(const std::string& /*module*/, bool /*is_called*/) {}

    // Takes the bytes of an answer, which are the script's until it returns, for as long as the
    // answer lives. What it returns is the answer's.
    virtual OWNED_BYTES take_bytes(const unsigned char* bytes, std::size_t size) {
        return OWNED_BYTES::copy_of(bytes, size);
    }

    // Ends the call of a late listener (complete_python_call).
    virtual void complete(bool success, const std::string& function, const std::string& file) = 0;
};

// Walks the road in this process. Everything that can go wrong has been reported on return.
ANSWER walk_road(const CALL_REQUEST& request, ROAD_SURROUNDINGS& surroundings);

#endif
