// The platform beneath the back channel, with calls that fail when a test says so, and with a
// record of what was called and what is held. It stands between the library and the platform's own
// files in the test program that has it; the library does not know.

#ifndef TESTS_FAULTY_PLATFORM_H
#define TESTS_FAULTY_PLATFORM_H

#include <ostream>
#include <string>

namespace faulty_platform {

// The calls that can fail, in the order in which a listener makes them for one channel.
enum class CALL {
    start_thread,
    fill_with_random_bytes,
    start_up,
    find_address,
    open_socket,
    allow_address_reuse,
    keep_address,
    bind_to,
    start_listening,
    port_of,
    open_waker,
    wait,
    accept_client,
    receive,
};
constexpr int number_of_calls = static_cast<int>(CALL::receive) + 1;

const char* name_of(CALL call);
void PrintTo(CALL call, std::ostream* stream);

// Forgets what was called and what was to fail. What is held stays on record.
void begin_anew();

// Makes the call fail when it is made the nth time from now on, counted from 1. The platform's own
// call is then not made.
void make_fail(CALL call, int nth = 1);

// How often each was called, and how many of all calls were made to fail.
int count_of(CALL call);
int count_of_failures();
int count_of_clean_ups();
int count_of_shut_downs();
int count_of_break_offs();

// What is held now ("1 address, 2 sockets"); empty when nothing is.
std::string held();

// What was done that must not be, such as closing a socket twice or ending a thread by force; empty
// when all was well.
std::string misuse();

// Whether the last receive was given a buffer of this size, all zeros.
bool received_into_zeros(std::size_t size);

}  // namespace faulty_platform

#endif
