// What scripts of the tests can do beyond Python: the built-in module test_hooks.
//
//     test_hooks.signal()        runs the host's on_script_signal
//     test_hooks.unfinished(l)   a list like `l` with nothing where `l` holds None, as an extension
//                                module that forgets an item leaves it

#ifndef TESTS_SCRIPT_HOOKS_H
#define TESTS_SCRIPT_HOOKS_H

#include <functional>

// Lets the scripts of the next session import test_hooks. No interpreter may run.
void offer_script_hooks();

// Must not throw.
extern std::function<void()> on_script_signal;

#endif
