// Order between the sessions of an interpreter that goes on after each: a kept one, and a host's.

#include "pgm/pgm_python/session_order.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <ostream>
#include <thread>

#include "pgm/pgm_python/interpreter_session.h"
#include "pgm/pgm_python/pgm_python_mgr.h"
#include "pgm/pgm_python/pgm_python_settings.h"
#include "tests/support.h"
#include "zel/zel_py/zel_py.h"

namespace {

// str() of an expression in the running session, or the exception's.
std::string text_of(const std::string& expression) {
    PyObject* const names = PyModule_GetDict(PyImport_AddModule("__main__"));
    const PY_REFERENCE value =
        PY_REFERENCE::owned(PyRun_String(expression.c_str(), Py_eval_input, names, names));
    const PY_REFERENCE text = PY_REFERENCE::owned(value ? PyObject_Str(value.get()) : nullptr);
    if (!text) {
        py_print_error();
        return "no value";
    }
    return PyUnicode_AsUTF8(text.get());
}

// The value of an expression in a session of its own, after statements.
std::string seen(const std::string& statements, const std::string& expression) {
    const INTERPRETER_SESSION session;
    EXPECT_TRUE(py_eval(statements.c_str())) << statements;
    return text_of(expression);
}

void run(const std::string& statements) {
    const INTERPRETER_SESSION session;
    EXPECT_TRUE(py_eval(statements.c_str())) << statements;
}

class Kept : public testing::Test {
protected:
    Kept() {
        PGM_PYTHON_SETTINGS::end_kept_interpreter();
        PGM_PYTHON_SETTINGS::set_calls(PGM_PYTHON_CALLS::kept);
    }
    ~Kept() override {
        PGM_PYTHON_SETTINGS::end_kept_interpreter();
        PGM_PYTHON_SETTINGS::use_environment();
        EXPECT_FALSE((Py_IsInitialized() != 0));
    }
};

TEST_F(Kept, TheInterpreterOutlivesItsSessionsUntilTheHostEndsIt) {
    EXPECT_FALSE((Py_IsInitialized() != 0));
    const std::string first = seen("import sys", "id(sys.modules)");
    EXPECT_TRUE((Py_IsInitialized() != 0));
    EXPECT_EQ(seen("import sys", "id(sys.modules)"), first);
    PGM_PYTHON_SETTINGS::end_kept_interpreter();
    EXPECT_FALSE((Py_IsInitialized() != 0));
    PGM_PYTHON_SETTINGS::end_kept_interpreter();
    EXPECT_EQ(seen("", "1 + 1"), "2");
}

TEST_F(Kept, KindsMayFollowOneAnotherInAnyOrder) {
    const PGM_PYTHON_CALLS fresh = PGM_PYTHON_CALLS::fresh;
    const PGM_PYTHON_CALLS kept = PGM_PYTHON_CALLS::kept;
    for (const PGM_PYTHON_CALLS kind : {kept, fresh, fresh, kept, kept, fresh, kept}) {
        PGM_PYTHON_SETTINGS::set_calls(kind);
        std::thread([] {
            EXPECT_EQ(seen("import threading, json", "json.dumps([1])"), "[1]");
        }).join();
        EXPECT_EQ(seen("import threading, json", "json.dumps([2])"), "[2]");
        EXPECT_EQ((Py_IsInitialized() != 0), kind == kept);
    }
}

TEST_F(Kept, SessionsMayFollowOneAnotherOnDifferentThreads) {
    run("");
    int right = 0;
    std::string threads;
    for (int round = 0; round < 20; ++round) {
        std::thread([&] {
            right += seen("import threading", "threading.current_thread() is None") == "False";
        }).join();
        threads = seen("import threading", "len(threading.enumerate())");
    }
    EXPECT_EQ(right, 20);
    EXPECT_EQ(threads, "1");
}

// Statements that change something, and how a later script would notice.
struct CHANGE {
    const char* name;
    const char* statements;
    const char* imports;
    const char* look;
};

void PrintTo(const CHANGE& change, std::ostream* stream) {
    *stream << change.name;
}

class KeptChange : public Kept, public testing::WithParamInterface<CHANGE> {};

TEST_P(KeptChange, IsUndone) {
    const CHANGE& change = GetParam();
    const std::string before = seen(change.imports, change.look);
    {
        const INTERPRETER_SESSION session;
        ASSERT_TRUE(py_eval((std::string(change.imports) + "\n" + change.statements).c_str()));
    }
    EXPECT_EQ(seen(change.imports, change.look), before);
#if PY_VERSION_HEX < 0x030C0000 || PY_VERSION_HEX >= 0x030D0000
    // In an interpreter's first call, too. (In Python 3.12 some modules of the standard library
    // crash in the second interpreter of a process.)
    PGM_PYTHON_SETTINGS::end_kept_interpreter();
    run(std::string(change.imports) + "\n" + change.statements);
    EXPECT_EQ(seen(change.imports, change.look), before);
#endif
    // And it can be noticed where it is not undone.
    const INTERPRETER_SESSION session;
    ASSERT_TRUE(py_eval((std::string(change.imports) + "\n" + change.statements).c_str()));
    if (std::string(change.name) != "ClosedStream") {
        EXPECT_NE(text_of(change.look), before);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Scripts, KeptChange,
    testing::Values(
        CHANGE{"PathAppended", "sys.path.append('/x')", "import sys", "sys.path"},
        CHANGE{"PathReplaced", "sys.path = ['/x'] + sys.path", "import sys", "sys.path"},
        CHANGE{"Arguments", "sys.argv = ['a']", "import sys", "getattr(sys, 'argv', None)"},
        CHANGE{"Stream", "import io\nsys.stdout = io.StringIO()", "import sys",
               "type(sys.stdout).__name__"},
        CHANGE{"ClosedStream", "sys.stderr.close()", "import sys", "sys.stderr.closed"},
        CHANGE{"DetachedStream", "sys.stdout.detach()", "import sys", "repr(sys.stdout)"},
        CHANGE{"OriginalStream", "sys.__stdout__ = None", "import sys", "sys.__stdout__ is None"},
        CHANGE{"StreamsEncoding", "sys.stdout.reconfigure(encoding='utf-16')", "import sys",
               "sys.stdout.encoding"},
        CHANGE{"ExceptHook", "sys.excepthook = print", "import sys",
               "sys.excepthook is sys.__excepthook__"},
        CHANGE{"DisplayHook", "sys.displayhook = print", "import sys",
               "sys.displayhook is sys.__displayhook__"},
        CHANGE{"UnraisableHook", "sys.unraisablehook = print", "import sys",
               "getattr(sys, 'unraisablehook', None) is print"},
        CHANGE{"BreakpointHook", "sys.breakpointhook = print", "import sys",
               "sys.breakpointhook is sys.__breakpointhook__"},
        CHANGE{"ThreadsHook", "threading.excepthook = print", "import threading",
               "getattr(threading, 'excepthook', None) is print"},
        CHANGE{"Trace", "sys.settrace(lambda *_: None)", "import sys", "sys.gettrace() is None"},
        CHANGE{"Profile", "sys.setprofile(lambda *_: None)", "import sys",
               "sys.getprofile() is None"},
        CHANGE{"ThreadsTrace", "threading.settrace(print)", "import threading",
               "threading._trace_hook"},
        CHANGE{"RecursionLimit", "sys.setrecursionlimit(500)", "import sys",
               "sys.getrecursionlimit()"},
        CHANGE{"SwitchInterval", "sys.setswitchinterval(1.5)", "import sys",
               "sys.getswitchinterval()"},
        CHANGE{"Builtin", "builtins.extra = 1\nbuiltins.print = None", "import builtins",
               "hasattr(builtins, 'extra'), print is None"},
        CHANGE{"MissingBuiltin", "del builtins.memoryview", "import builtins",
               "hasattr(builtins, 'memoryview')"},
        CHANGE{"Annotations", "leftover: int = 1", "", "globals().get('__annotations__', {})"},
        CHANGE{"MainModule", "leftover = 1", "", "'leftover' in globals()"},
        CHANGE{"MainModulesPlace", "sys.modules['__main__'] = sys\n", "import sys",
               "sys.modules['__main__'] is sys"},
        CHANGE{"WarningFilters", "warnings.simplefilter('error')", "import warnings",
               "warnings.filters"},
        CHANGE{"WarningsPrinter", "warnings.showwarning = print", "import warnings",
               "warnings.showwarning is print"},
        CHANGE{"SignalHandler", "signal.signal(signal.SIGTERM, signal.SIG_IGN)", "import signal",
               "signal.getsignal(signal.SIGTERM)"},
        CHANGE{"InterruptHandler", "signal.signal(signal.SIGINT, lambda *_: None)", "import signal",
               "signal.getsignal(signal.SIGINT)"},
        CHANGE{"SignalDescriptor",
               "import socket\nends = socket.socketpair()\nends[0].setblocking(False)\n"
               "signal.set_wakeup_fd(ends[0].fileno())",
               "import signal", "signal.set_wakeup_fd(-1)"},
        CHANGE{"FaultHandler", "faulthandler.enable(open(os.devnull, 'w'))",
               "import faulthandler, os", "faulthandler.is_enabled()"},
        CHANGE{"StackSize", "threading.stack_size(1 << 20)", "import threading",
               "threading.stack_size()"},
        CHANGE{"Environment", "os.environ['LEFT'] = 'x'\nos.environ.pop('PATH')", "import os",
               "os.environ.get('LEFT'), 'PATH' in os.environ"},
        CHANGE{"EnvironmentReplaced", "os.environ = {}", "import os", "type(os.environ)"},
        CHANGE{"PatchedOs", "os.getcwd = None", "import os", "os.getcwd is None"},
        CHANGE{"DecimalContext", "decimal.getcontext().prec = 3", "import decimal",
               "decimal.Decimal(1) / 3"},
        CHANGE{"DecimalTemplate", "decimal.DefaultContext.prec = 3", "import decimal",
               "decimal.DefaultContext"},
        CHANGE{"ContextVariable", "decimal.setcontext(decimal.Context(prec=5))", "import decimal",
               "decimal.getcontext().prec"},
        CHANGE{"CollectorOff", "gc.disable()", "import gc", "gc.isenabled()"},
        CHANGE{"CollectorThreshold", "gc.set_threshold(5)", "import gc", "gc.get_threshold()"},
        CHANGE{"CollectorCallback", "gc.callbacks.append(lambda *_: None)", "import gc",
               "len(gc.callbacks)"},
        CHANGE{"CollectorDebug", "gc.set_debug(gc.DEBUG_SAVEALL)", "import gc", "gc.get_debug()"},
        CHANGE{"Finder", "sys.meta_path.insert(0, object)", "import sys", "len(sys.meta_path)"},
        CHANGE{"PathHook", "sys.path_hooks.clear()", "import sys", "len(sys.path_hooks)"},
        CHANGE{"ImportersCache", "sys.path_importer_cache['/x'] = None", "import sys",
               "'/x' in sys.path_importer_cache"},
        CHANGE{"MadeModule", "sys.modules['made'] = type(sys)('made')", "import sys",
               "'made' in sys.modules"},
        CHANGE{"BlockedModule", "sys.modules['xmlrpc'] = None", "import sys",
               "'xmlrpc' in sys.modules"},
        CHANGE{"Modules", "sys.modules = {}", "import sys", "len(sys.modules) > 5"},
        CHANGE{"LastException", "sys.last_value = 3", "import sys", "hasattr(sys, 'last_value')"},
        CHANGE{"Logging", "logging.basicConfig(level=10)", "import logging",
               "len(logging.root.handlers), logging.root.level"},
        CHANGE{"SocketTimeout", "_socket.setdefaulttimeout(3)", "import _socket",
               "_socket.getdefaulttimeout()"}),
    [](const testing::TestParamInfo<CHANGE>& change) { return std::string(change.param.name); });

TEST_F(Kept, AModuleThatIsDeletedOrReplacedComesBack) {
    const std::string before = seen("import sys, json", "id(sys.modules['json'])");
    run("import sys\ndel sys.modules['json']");
    EXPECT_EQ(seen("import sys, json", "id(sys.modules['json'])"), before);
    run("import sys\nsys.modules['json'] = sys");
    EXPECT_EQ(seen("import sys, json", "id(sys.modules['json'])"), before);
}

TEST_F(Kept, ATracebackThatIsDueLaterEndsNoHost) {
    run("import faulthandler, os\n"
        "faulthandler.dump_traceback_later(0.3, exit=True, file=open(os.devnull, 'w'))");
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
}

TEST_F(Kept, MemoryIsTracedInTheCallThatAskedForItOnly) {
    run("import tracemalloc\ntracemalloc.start()\nassert tracemalloc.is_tracing()");
    EXPECT_EQ(seen("import tracemalloc", "tracemalloc.is_tracing()"), "False");
}

#if !defined(_WIN32)

TEST_F(Kept, ASignalShowsNoTracebackAfterTheCallThatAskedForIt) {
    run("import faulthandler, os, signal\n"
        "faulthandler.register(signal.SIGUSR1, open(os.devnull, 'w'))");
    EXPECT_EQ(seen("import faulthandler, signal", "faulthandler.unregister(signal.SIGUSR1)"),
              "False");
}

TEST_F(Kept, TheTimeZoneIsTheEnvironments) {
    const ENVIRONMENT_VALUE own("TZ", "AAA-1");
    tzset();
    const auto zone = [] { return seen("import time", "time.tzname[0], time.localtime(0)[3]"); };
    EXPECT_EQ(zone(), "('AAA', 1)");
    run("import os, time\nos.environ['TZ'] = 'BBB-2'\ntime.tzset()");
    EXPECT_EQ(zone(), "('AAA', 1)");
    run("import os, time\nos.environ['TZ'] = 'BBB-2'\ntime.tzset()\nos.environ['TZ'] = 'AAA-1'");
    EXPECT_EQ(zone(), "('AAA', 1)");
    {
        const ENVIRONMENT_VALUE other("TZ", "CCC-3");
        EXPECT_EQ(zone(), "('CCC', 3)");
    }
    EXPECT_EQ(zone(), "('AAA', 1)");
}

#endif

#if PY_VERSION_HEX >= 0x030C0000

TEST_F(Kept, ToolsThatMonitorAreTakenOut) {
    const std::string tools = "[sys.monitoring.get_tool(number) for number in range(6)]";
    const std::string none = seen("import sys", tools);
    for (int round = 0; round < 2; ++round) {
        run("import sys\n"
            "monitoring = sys.monitoring\n"
            "monitoring.use_tool_id(2, 'tool')\n"
            "assert monitoring.get_events(2) == 0\n"
            "started = monitoring.events.PY_START\n"
            "assert monitoring.register_callback(2, started, lambda *_: None) is None\n"
            "monitoring.set_events(2, started)\n");
        EXPECT_EQ(seen("import sys", tools), none);
    }
}

#endif

TEST_F(Kept, TheLocaleIsTheSameInEverySession) {
    const char* const host = std::setlocale(LC_ALL, nullptr);
    const std::string before = host == nullptr ? "" : host;
    const std::string first = seen("import locale", "locale.setlocale(locale.LC_ALL)");
    run("import locale\nlocale.setlocale(locale.LC_ALL, 'C')");
    EXPECT_EQ(std::setlocale(LC_ALL, nullptr), before);
    EXPECT_EQ(seen("import locale", "locale.setlocale(locale.LC_ALL)"), first);
    EXPECT_EQ(std::setlocale(LC_ALL, nullptr), before);
}

TEST_F(Kept, SignalsAreTheHostsBetweenSessions) {
    const auto before = std::signal(SIGTERM, SIG_DFL);
    for (int round = 0; round < 2; ++round) {
        run("import signal\nsignal.signal(signal.SIGTERM, signal.SIG_IGN)\n"
            "signal.signal(signal.SIGINT, lambda *_: None)");
        const auto interrupt = std::signal(SIGINT, SIG_DFL);
        EXPECT_EQ(interrupt, SIG_DFL);
        EXPECT_EQ(std::signal(SIGTERM, SIG_DFL), SIG_DFL);
    }
    std::signal(SIGTERM, before);
}

TEST_F(Kept, TheEnvironmentIsTheHostsAndWhatScriptsSetIsUndone) {
    const ENVIRONMENT_VALUE own("PGM_TEST_OWN", "first");
    EXPECT_EQ(seen("import os", "os.environ['PGM_TEST_OWN']"), "first");
    {
        const ENVIRONMENT_VALUE other("PGM_TEST_OWN", "second");
        EXPECT_EQ(seen("import os", "os.environ['PGM_TEST_OWN']"), "second");
    }
    run("import os\nos.environ['PGM_TEST_OWN'] = 'x'\nos.putenv('PGM_TEST_NEW', 'y')");
    EXPECT_STREQ(std::getenv("PGM_TEST_OWN"), "first");
    EXPECT_EQ(std::getenv("PGM_TEST_NEW"), nullptr);
    run("import os\ndel os.environ['PGM_TEST_OWN']");
    EXPECT_STREQ(std::getenv("PGM_TEST_OWN"), "first");
    {
        const ENVIRONMENT_VALUE none("PGM_TEST_OWN", nullptr);
        EXPECT_EQ(seen("import os", "os.environ.get('PGM_TEST_OWN')"), "None");
    }
}

// ---- modules

// What module `bits` of a folder says, imported as a bridge imports a script.
std::string imported(const std::string& script, const std::string& expression) {
    INTERPRETER_SESSION session;
    session.setup_system_path();
    const std::string module = session.setup_system_path(script);
    EXPECT_TRUE(py_eval(("import sys\nimport " + module + " as script").c_str()));
    return text_of(expression);
}

void check_modules_of_scripts() {
    const TEST_INSTALLATION installation;
    const TEMPORARY_FOLDER folder;
    const std::string one = folder.write("one/bits.py", "import helper\nname = 'one'\n");
    const std::string two = folder.write("two/bits.py", "import helper\nname = 'two'\n");
    folder.write("one/helper.py", "name = 'helper of one'\n");
    folder.write("added/late.py", "");
    folder.write("two/calendar.py", "name = 'calendar of two'\n");
    installation.common_script("python/source/helper.py", "name = 'common helper'\n");
    EXPECT_EQ(imported(one, "script.name + ', ' + script.helper.name"), "one, helper of one");
    EXPECT_EQ(imported(two, "script.name + ', ' + script.helper.name"), "two, common helper");
    // A script is read anew.
    folder.write("two/bits.py", "import helper\nname = 'changed two'\n");
    EXPECT_EQ(imported(two, "script.name"), "changed two");
    // A folder that a script adds, and takes back.
    EXPECT_EQ(imported(one, "[sys.path.insert(0, '" + folder.path() +
                                "/added'), __import__('late'), sys.path.pop(0)][1].__name__"),
              "late");
    EXPECT_EQ(imported(one, "'late' in sys.modules"), "False");
    // A module of the standard library gives way to a script's own.
    EXPECT_EQ(imported(one, "hasattr(__import__('calendar'), 'month_name')"), "True");
    EXPECT_EQ(imported(two, "__import__('calendar').name"), "calendar of two");
    EXPECT_EQ(imported(one, "hasattr(__import__('calendar'), 'month_name')"), "True");
    // The standard library's stay.
    EXPECT_EQ(imported(one, "'calendar' in sys.modules"), "True");
}

TEST_F(Kept, ModulesOfScriptsAreForgottenAndTheStandardLibrarysStay) {
    check_modules_of_scripts();
}

TEST_F(Kept, FindersOfPackagesThatStayStayToo) {
    const TEMPORARY_FOLDER packages;
    packages.write("lazy.py",
                   "import sys\n"
                   "from importlib.machinery import ModuleSpec\n"
                   "class Finder:\n"
                   "    def find_spec(self, name, path=None, target=None):\n"
                   "        return ModuleSpec(name, self) if name == 'lazy.found' else None\n"
                   "    def create_module(self, spec): return None\n"
                   "    def exec_module(self, module): pass\n"
                   "def hook(path): raise ImportError(path)\n"
                   "__path__ = []\n"
                   "sys.meta_path.append(Finder())\n"
                   "sys.path_hooks.insert(0, hook)\n");
    const ENVIRONMENT_VALUE path("PYTHONPATH", packages.path().c_str());
    const char* const others =
        "import sys\n"
        "class Other: find_spec = lambda *_: None\n"
        "sys.meta_path[:0] = [Other(), Other]\n"
        "sys.path_hooks.append(sys.path_hooks[-1])\n";
    const std::string finders =
        "[getattr(finder, '__name__', type(finder).__name__) for finder in sys.meta_path]";
    const std::string hooks = "[hook.__name__ for hook in sys.path_hooks]";
    const std::string after = seen("import sys", finders + " + ['Finder'], ['hook'] + " + hooks);
    run(std::string(others) + "import lazy");
    EXPECT_EQ(seen("import lazy, lazy.found, sys", finders + ", " + hooks), after);
    run(others);
    EXPECT_EQ(seen("import sys", finders + ", " + hooks), after);
}

// ---- the end of a session

TEST_F(Kept, ExitFunctionsRunAtTheEndOfTheCallThatMadeThem) {
    const auto written = [](const std::string& statements) {
        return written_by([&] { run(statements); });
    };
    EXPECT_EQ(written("import atexit, sys\n"
                      "atexit.register(sys.stderr.write, 'first\\n')\n"
                      "atexit.register(sys.stderr.write, 'second\\n')\n"
                      "@atexit.register\n"
                      "def gone(): pass\n"
                      "atexit.unregister(gone)\n"),
              "second\nfirst\n");
    EXPECT_EQ(written("pass"), "");
    const std::string failed = written(
        "import atexit, sys\n"
        "atexit.register(sys.stderr.write, 'run all the same\\n')\n"
        "atexit.register(lambda: 1/0)\n");
    EXPECT_NE(failed.find("ZeroDivisionError: division by zero\nrun all the same\n"),
              std::string::npos)
        << failed;
    EXPECT_EQ(written("pass"), "");
    EXPECT_EQ(written_by([] { PGM_PYTHON_SETTINGS::end_kept_interpreter(); }), "");
}

TEST_F(Kept, PackagesThatStayAreShutDownWithTheInterpreter) {
    const TEMPORARY_FOLDER packages;
    const std::string at_end =
        "import atexit, os\n"
        "def at_end(name):\n"
        "    return os.write, 2, (name + ' ended\\n').encode()\n";
    packages.write("at_end.py", at_end);
    // What an extension registers while it starts has the frame of the import system as caller.
    packages.write("native.py",
                   "import atexit, at_end, importlib._bootstrap as system\n"
                   "system._call_with_frames_removed(atexit.register, *at_end.at_end('native'))\n");
    packages.write("helped/__init__.py", "from . import helper\nhelper.start('helped')\n");
    packages.write("helped/helper.py",
                   "import atexit, at_end\n"
                   "def start(name): atexit.register(*at_end.at_end(name))\n");
    packages.write("caller.py", "import of_script\n");
    const TEMPORARY_FOLDER scripts;
    scripts.write("of_script.py", "import helped.helper\nhelped.helper.start('of_script')\n");
    const ENVIRONMENT_VALUE path("PYTHONPATH", packages.path().c_str());
    EXPECT_EQ(written_by([] { run("import native, helped\nhelped.helper.start('script')\n"); }),
              "script ended\n");
    EXPECT_EQ(written_by([&] {
                  run("import sys\nsys.path.insert(0, r'" + scripts.path() +
                      "')\nimport native, helped, caller\n");
              }),
              "of_script ended\n");
    EXPECT_EQ(written_by([] { PGM_PYTHON_SETTINGS::end_kept_interpreter(); }),
              "helped ended\nnative ended\n");
}

TEST_F(Kept, ModulesThatStayEndTheirWorkInEverySession) {
    const TEMPORARY_FOLDER folder;
    for (int round = 0; round < 3; ++round) {
        run("import logging.handlers\n"
            "handler = logging.handlers.MemoryHandler(1000, flushOnClose=True,\n"
            "    target=logging.FileHandler(r'" +
            folder.path() +
            "/log'))\n"
            "logging.getLogger('x').addHandler(handler)\n"
            "logging.getLogger('x').error('line')\n"
            "import weakref\n"
            "class Object: pass\n"
            "thing = Object()\n"
            "weakref.finalize(thing, logging.FileHandler(r'" +
            folder.path() +
            "/log').emit, logging.makeLogRecord({'msg': 'finalized'}))\n"
            "from concurrent.futures import ThreadPoolExecutor\n"
            "pool = ThreadPoolExecutor()\n"
            "assert pool.submit(lambda: 3).result() == 3\n");
    }
    std::string log = folder.read("log");
    log.erase(std::remove(log.begin(), log.end(), '\r'), log.end());
    std::size_t finalized = 0;
    for (std::size_t at = log.find("finalized"); at != std::string::npos;
         at = log.find("finalized", at + 1)) {
        ++finalized;
    }
    EXPECT_EQ(finalized, 3U) << log;
    EXPECT_EQ(log.size(), 3 * (std::string("finalized\n").size() + std::string("line\n").size()))
        << log;
}

TEST_F(Kept, ThreadsAreWaitedFor) {
    EXPECT_EQ(written_by([] {
                  run("import sys, threading, time\n"
                      "def work():\n"
                      "    time.sleep(0.2)\n"
                      "    sys.stderr.write('done\\n')\n"
                      "threading.Thread(target=work).start()\n");
              }),
              "done\n");
}

TEST_F(Kept, WhatACallMadeIsCollectedAtItsEnd) {
    const TEST_INSTALLATION installation;
    const std::string script =
        installation.common_script("python/leaving.py",
                                   "import sys\n"
                                   "class Left:\n"
                                   "    def __del__(self):\n"
                                   "        sys.stderr.write('finalised\\n')\n"
                                   "left = Left()\n"
                                   "left.itself = left\n");
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(written_by([&] { imported(script, "1"); }), "finalised\n");
    }
}

TEST_F(Kept, WhatAContextVariableHoldsIsCollectedWithTheRest) {
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(written_by([] {
                      run("import contextvars, sys\n"
                          "class Left:\n"
                          "    def __del__(self):\n"
                          "        sys.stderr.write('finalised\\n')\n"
                          "class Holder: pass\n"
                          "def holds(): return left\n"
                          "Holder.holds = holds\n"
                          "left = Left()\n"
                          "contextvars.ContextVar('variable').set(Holder())\n");
                  }),
                  "finalised\n");
    }
}

TEST_F(Kept, AThrowingReportLeavesTheInterpreterInOrder) {
    const TEST_INSTALLATION installation;
    RECORDING_RECEIVER receiver;
    const std::string script = installation.common_script("python/tool.py", "");
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(thrown_by([] {
                      INTERPRETER_SESSION session;
                      py_eval("import sys\nsys.path.append('/left')");
                      session.setup_system_path("");
                  }),
                  internal_error("Python file must be specified", 1779));
        EXPECT_EQ(imported(script, "'/left' in sys.path"), "False");
    }
}

TEST_F(Kept, AThousandCallsOfOneQueryGrowByAtMostAKibibyteEach) {
    const TEST_INSTALLATION installation;
    installation.common_script("python/pgm_python_common_function.pyc",
                               "def query_opn_name(name): return 7\n");
    constexpr int calls = 1000;
    int right = 0;
    for (int round = 0; round < calls; ++round) {
        right += PGM_PYTHON_MGR::query_opn_name("x") == 7 ? 1 : 0;
    }
    const long long before = resident_memory();
    for (int round = 0; round < calls; ++round) {
        right += PGM_PYTHON_MGR::query_opn_name("x") == 7 ? 1 : 0;
    }
    EXPECT_EQ(right, 2 * calls);
    if (before < 0) {
        GTEST_SKIP() << "the platform does not tell the memory in use";
    }
    EXPECT_LE(resident_memory() - before, calls * 1024LL);
}

TEST_F(Kept, TypesOfForeignFunctionsAreForgottenWithTheirScripts) {
    const std::string script =
        "import ctypes\n"
        "class Record(ctypes.Structure): _fields_ = [('field', ctypes.c_int)]\n"
        "Pointers = ctypes.POINTER(ctypes.POINTER(Record) * 3)\n"
        "Function = ctypes.CFUNCTYPE(None, ctypes.POINTER(Record))\n"
        "Other = ctypes.CFUNCTYPE(ctypes.c_int, Function)\n"
        "own = ctypes.POINTER(ctypes.c_double)\n"
        "ballast = b'x' * 10000\n";
    const char* const own = "id(ctypes.POINTER(ctypes.c_double))";
    run(script);
    const std::string before = seen("import ctypes", own);
    constexpr int calls = 500;
    for (int round = 0; round < calls; ++round) {
        run(script);
    }
    const long long memory = resident_memory();
    for (int round = 0; round < calls; ++round) {
        run(script);
    }
    EXPECT_EQ(seen("import ctypes", own), before);
    if (memory < 0) {
        GTEST_SKIP() << "the platform does not tell the memory in use";
    }
    EXPECT_LE(resident_memory() - memory, calls * 1024LL);
}

TEST_F(Kept, LoggersOfScriptsAreForgottenAndThoseOfPackagesStay) {
    const TEMPORARY_FOLDER packages;
    packages.write("talkative.py",
                   "import logging\n"
                   "first = logging.getLogger('ODD.first')\n"
                   "second = logging.getLogger('by.script.second')\n");
    const ENVIRONMENT_VALUE path("PYTHONPATH", packages.path().c_str());
    run("import logging\n"
        "logging.getLogger('by.script').setLevel(10)\n"
        "import talkative\n"
        "logging.getLogger('ODD').setLevel(10)\n"
        "logging.getLogger('by.script.second').setLevel(10)\n"
        "logging.getLogger('ODD.first.below')\n"
        "assert talkative.first.parent.name == 'ODD'\n"
        "assert talkative.second.isEnabledFor(10)\n");
    const std::string look =
        "sorted(logging.root.manager.loggerDict), "
        "logging.getLogger('ODD.first') is talkative.first, "
        "logging.getLogger('by.script.second') is talkative.second, "
        "logging.getLogger('by.script') is talkative.second.parent, "
        "talkative.first.parent is logging.root, talkative.first.getEffectiveLevel(), "
        "talkative.second.getEffectiveLevel(), talkative.second.isEnabledFor(10)";
    const std::string there = "import logging\nimport talkative";
    const std::string before = seen(there, look);
    EXPECT_NE(before.find("True, True, True, True, 30, 30, False"), std::string::npos) << before;
    EXPECT_EQ(before.find("below"), std::string::npos) << before;
    for (int round = 0; round < 3; ++round) {
        run("import logging\n"
            "for number in range(100):\n"
            "    logging.getLogger('job.' + str(number)).setLevel(10)\n"
            "logging.getLogger('ODD').setLevel(10)\n");
        EXPECT_EQ(seen(there, look), before);
    }
}

// ---- an interpreter of the host's own

class HOST_INTERPRETER {
public:
    HOST_INTERPRETER() { Py_InitializeEx(0); }
    ~HOST_INTERPRETER() { Py_FinalizeEx(); }
    HOST_INTERPRETER(const HOST_INTERPRETER&) = delete;
    HOST_INTERPRETER& operator=(const HOST_INTERPRETER&) = delete;
};

TEST(HostsInterpreter, ModulesOfScriptsAreForgottenAndTheStandardLibrarysStay) {
    const HOST_INTERPRETER host;
    check_modules_of_scripts();
}

TEST(HostsInterpreter, InterpretersMayFollowOneAnother) {
    for (int round = 0; round < 3; ++round) {
        const HOST_INTERPRETER host;
        for (int session = 0; session < 3; ++session) {
            run("import sys\nsys.path.append('/left')");
            EXPECT_EQ(text_of("'/left' in __import__('sys').path"), "False");
        }
    }
}

TEST(HostsInterpreter, AThousandSessionsGrowByAtMostAKibibyteEach) {
    const HOST_INTERPRETER host;
    constexpr int sessions = 1000;
    for (int session = 0; session < sessions / 4; ++session) {
        run("");
    }
    const long long before = resident_memory();
    for (int session = 0; session < sessions; ++session) {
        run("");
    }
    if (before < 0) {
        GTEST_SKIP() << "the platform does not tell the memory in use";
    }
    EXPECT_LE(resident_memory() - before, sessions * 1024LL);
}

TEST(HostsInterpreter, TheDescriptorForSignalsStays) {
    const HOST_INTERPRETER host;
    ASSERT_TRUE(
        py_eval("import signal, socket\n"
                "ends = socket.socketpair()\n"
                "ends[0].setblocking(False)\n"
                "signal.set_wakeup_fd(ends[0].fileno())"));
    run("");
    run("import signal\nsignal.set_wakeup_fd(-1)");
    EXPECT_EQ(text_of("signal.set_wakeup_fd(-1) == ends[0].fileno()"), "True");
}

// What another thread of the host does while a session runs, which is none of the session's.
void check_other_threads_of_the_host(const std::string& imports) {
    const HOST_INTERPRETER host;
    ASSERT_TRUE(py_eval(
        (imports + "import atexit, sys, types, _thread\n"
                   "host = sys.host = types.SimpleNamespace(log=[])\n"
                   "for name in ('go', 'done', 'end'):\n"
                   "    setattr(host, name, _thread.allocate_lock())\n"
                   "    getattr(host, name).acquire()\n"
                   "def work():\n"
                   "    host.go.acquire()\n"
                   "    import threading\n"
                   "    host.thread = threading.Thread(target=host.end.acquire, args=(True, 3),\n"
                   "                                   daemon=False)\n"
                   "    host.thread.start()\n"
                   "    atexit.register(host.log.append, 'exit of the host')\n"
                   "    host.done.release()\n"
                   "starter, registrations = _thread.start_new_thread, atexit._ncallbacks()\n")
            .c_str()));
    ASSERT_TRUE(py_eval("_thread.start_new_thread(work, ())"));
    run("import atexit, sys, threading, time\n"
        "log = sys.host.log\n"
        "sys.host.go.release()\n"
        "sys.host.done.acquire()\n"
        "def inner():\n"
        "    time.sleep(0.2)\n"
        "    log.append('thread of a thread')\n"
        "def outer():\n"
        "    atexit.register(log.append, 'exit of a thread')\n"
        "    threading.Thread(target=inner).start()\n"
        "atexit.register(log.append, 'exit of the script')\n"
        "threading.Thread(target=outer).start()\n");
    EXPECT_EQ(text_of("host.log"),
              "['thread of a thread', 'exit of a thread', 'exit of the script']");
    EXPECT_EQ(text_of("host.thread.is_alive()"), "True");
    EXPECT_EQ(text_of("atexit._ncallbacks() - registrations > 0"), "True");
    EXPECT_EQ(text_of("_thread.start_new_thread is starter"), "True");
    EXPECT_EQ(text_of("[name for name, value in vars(sys.modules['threading']).items()"
                      " if 'start_' in name and type(value) is not type(len)]"),
              "[]");
    ASSERT_TRUE(py_eval("host.end.release()\nhost.thread.join()"));
}

TEST(HostsInterpreter, WhatItsOtherThreadsDoIsTheHosts) {
    check_other_threads_of_the_host("import threading\n");
}

TEST(HostsInterpreter, WhatItsOtherThreadsDoIsTheHostsWhereAScriptImportsThreading) {
    check_other_threads_of_the_host("");
}

TEST(HostsInterpreter, ASessionPutsBackWhatItFound) {
    const TEST_INSTALLATION installation;
    const std::string script = installation.common_script("python/bits.py", "name = 'script'\n");
    const ENVIRONMENT_VALUE none("PGM_PYTHON_BIN_DIR", nullptr);
    const HOST_INTERPRETER host;
    ASSERT_TRUE(
        py_eval("import os, sys, types, logging, atexit, gc\n"
                "sys.argv = ['of the host']\n"
                "sys.modules['bits'] = types.ModuleType('bits')\n"
                "sys.modules['bits'].name = 'host'\n"
                "mine = 'still here'\n"
                "def hook(*_): pass\n"
                "sys.excepthook = hook\n"
                "logging.root.handlers.append(logging.NullHandler())\n"
                "def state():\n"
                "    return [list(sys.path), sys.argv, sys.excepthook, sys.stdout,\n"
                "            sorted(sys.modules), dict(os.environ), sys.modules['bits'].name,\n"
                "            sys.modules['__main__'].mine, logging.root.handlers[:],\n"
                "            atexit.register, gc.get_freeze_count(), gc.isenabled(),\n"
                "            os.environ.get('PGM_PYTHON_BIN_DIR')]\n"
                "before = state()\n"));
    for (const PGM_PYTHON_CALLS kind : {PGM_PYTHON_CALLS::fresh, PGM_PYTHON_CALLS::kept}) {
        PGM_PYTHON_SETTINGS::set_calls(kind);
        for (int round = 0; round < 4; ++round) {
            WIDE_ARGUMENT_VECTOR arguments;
            INTERPRETER_SESSION session;
            arguments.set(script, {"argument"});
            session.setup_system_path();
            session.setup_system_path(script);
            EXPECT_EQ(text_of("__import__('bits').name"), "script");
            EXPECT_EQ(text_of("'mine' in globals()"), "False");
            EXPECT_TRUE(
                py_eval("import os, sys, logging, atexit, io, gc\n"
                        "sys.stdout = io.StringIO()\n"
                        "sys.excepthook = None\n"
                        "os.environ['LEFT'] = 'x'\n"
                        "logging.root.handlers.clear()\n"
                        "atexit.register(print)\n"
                        "gc.disable()\n"));
        }
        EXPECT_EQ(std::getenv("LEFT"), nullptr);
        EXPECT_EQ(text_of("state() == before"), "True")
            << text_of("[(a, b) for a, b in zip(before, state()) if a != b]");
    }
    PGM_PYTHON_SETTINGS::use_environment();
    PGM_PYTHON_SETTINGS::end_kept_interpreter();
    EXPECT_TRUE((Py_IsInitialized() != 0));
}

}  // namespace
