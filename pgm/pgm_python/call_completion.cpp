#include "pgm/pgm_python/call_completion.h"

#include <vector>

#include "pgm/pgm_common/pgm_common.h"
#include "pgm/pgm_python/messages.h"
#include "zel/zel_thr/zel_thr.h"

void complete_python_call(bool success, THR_THREAD* thread, PGM_PYTHON_LISTENER_DATA* data,
                          std::string function, std::string file) {
    constexpr int grace_periods = 5;
    constexpr unsigned long grace_period_ms = 100;
    if (!success) {
        for (int period = 0;
             period < grace_periods && thr_thread_is_running(*thread) != 0 && !data->settled;
             ++period) {
            thr_msleep(grace_period_ms);
        }
    }
    data->looks_once_more = !success;
    if (thr_thread_is_running(*thread) != 0) {
        thr_thread_terminate_and_possibly_crash(*thread);
    } else {
        thr_thread_wait(*thread);
    }
    *thread = nullptr;
    if (success) {
        return;
    }
    post_and_release(function.empty() ? make_execution_failure_file_msg(file)
                                      : make_execution_failure_msg(function, file));
    if (data->received && !data->text.empty()) {
        const std::vector<std::string> pieces = PGM_COMMON::split_string(
            data->text, back_channel_delimiter, true, false, 0xFFFFFFFFUL, {}, "", true);
        for (const std::string& piece : pieces) {
            // A piece ends at its first zero byte.
            post_and_release(make_execution_failure_reason_msg(piece.substr(0, piece.find('\0'))));
        }
    }
}

void complete_python_call(bool success, BACK_CHANNEL& back_channel, const std::string& function,
                          const std::string& file) {
    complete_python_call(success, back_channel.thread(), back_channel.data(), function, file);
}
