// The facts of a bridge: what of it never changes from call to call.

#ifndef PGM_PGM_PYTHON_BRIDGE_H
#define PGM_PGM_PYTHON_BRIDGE_H

// Where a bridge's back channel begins and ends.
enum class BACK_CHANNEL_PLACEMENT {
    // The bridge has none.
    none,
    // From before the checks of script and function until after the interpreter is finalised; a
    // failure on the way to the call completes it too.
    early,
    // From when the function has been found until the answer has been converted; the interpreter
    // still runs then.
    late,
};

// What of a bridge never changes from call to call. A bridge starts from the common road and names
// where it leaves it:
//
//     constexpr BRIDGE generate_rim_bridge = BRIDGE(1534).with_early_back_channel();
struct BRIDGE {
    // `line` is the number that the road's internal errors carry.
    explicit constexpr BRIDGE(int road_line) : line(road_line) {}

    constexpr BRIDGE with_early_back_channel() const {
        BRIDGE bridge = *this;
        bridge.back_channel = BACK_CHANNEL_PLACEMENT::early;
        return bridge;
    }
    constexpr BRIDGE with_late_back_channel() const {
        BRIDGE bridge = *this;
        bridge.back_channel = BACK_CHANNEL_PLACEMENT::late;
        return bridge;
    }
    // The bridge itself posts 20351 when its call fails.
    constexpr BRIDGE posting_call_failure() const {
        BRIDGE bridge = *this;
        bridge.posts_call_failure = true;
        return bridge;
    }
    // The bridge prints this line, after the traceback, when its call fails.
    constexpr BRIDGE printing_call_failure(const char* text) const {
        BRIDGE bridge = *this;
        bridge.call_failure = text;
        return bridge;
    }
    // Another line for a function that is not found; the %s is optional.
    constexpr BRIDGE printing_lookup_failure(const char* text) const {
        BRIDGE bridge = *this;
        bridge.lookup_failure = text;
        return bridge;
    }
    // Another text of the check of the module's name.
    constexpr BRIDGE checking_module_name_as(const char* text) const {
        BRIDGE bridge = *this;
        bridge.module_name_check = text;
        return bridge;
    }
    // The bridge has checked script and function itself.
    constexpr BRIDGE without_script_check() const {
        BRIDGE bridge = *this;
        bridge.checks_script = false;
        return bridge;
    }
    constexpr BRIDGE without_argument_vector() const {
        BRIDGE bridge = *this;
        bridge.sets_argument_vector = false;
        return bridge;
    }
    // Of the search path, only the script's own folder is set.
    constexpr BRIDGE without_suite_folders() const {
        BRIDGE bridge = *this;
        bridge.sets_suite_folders = false;
        return bridge;
    }
    // The argument tuple is built before the function is looked up.
    constexpr BRIDGE building_arguments_first() const {
        BRIDGE bridge = *this;
        bridge.builds_arguments_first = true;
        return bridge;
    }
    // Each argument goes into the tuple before the next is made; else all are made first.
    constexpr BRIDGE placing_arguments_one_by_one() const {
        BRIDGE bridge = *this;
        bridge.places_one_by_one = true;
        return bridge;
    }
    // The result is released after a late completion; else as soon as it has been converted.
    constexpr BRIDGE keeping_result_until_completed() const {
        BRIDGE bridge = *this;
        bridge.keeps_result = true;
        return bridge;
    }

    int line;
    BACK_CHANNEL_PLACEMENT back_channel = BACK_CHANNEL_PLACEMENT::none;
    const char* module_name_check = "filename.size()";
    const char* lookup_failure = "Fail to find function %s";
    const char* call_failure = nullptr;
    bool posts_call_failure = false;
    bool checks_script = true;
    bool sets_argument_vector = true;
    bool sets_suite_folders = true;
    bool builds_arguments_first = false;
    bool places_one_by_one = false;
    bool keeps_result = false;
};

#endif
