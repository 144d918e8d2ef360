"""Order in an interpreter that goes on after a session.

What a session finds is noted, and put back at its end, so that the next one finds it too. The
library runs this text in names of its own, with builtins of its own, so that scripts do not reach
it: an ORDER for the whole life of an interpreter that is kept, and one for each session in a
host's own.
"""

import sys

NAMES_AT_START = frozenset(sys.modules)

import _thread
import _weakref
import atexit
import builtins
import gc
import io
import os
import warnings

MODULES = sys.modules
MODULE_TYPE = type(sys)
FUNCTION_TYPE = type(lambda: None)
STREAMS = (("stdin", 0), ("stdout", 1), ("stderr", 2))

# What an interpreter has loaded before any script, so that no script's folder hides it.
ALWAYS_LOADED = frozenset(sys.builtin_module_names) | frozenset((
    "__main__", "_abc", "_collections_abc", "_frozen_importlib", "_frozen_importlib_external",
    "_sitebuiltins", "abc", "codecs", "encodings", "genericpath", "importlib", "io", "ntpath", "os",
    "posixpath", "site", "stat", "zipimport"))

# Modules of the standard library that work on after the functions that they register for the end:
# those run at the end of each session.
ENDED_EACH_TIME = frozenset((
    "concurrent.futures.process", "concurrent.futures.thread", "logging", "multiprocessing.util",
    "weakref"))


def is_module(thing):
    # Some objects only say that they are modules.
    return issubclass(type(thing), MODULE_TYPE)


def names_of(module):
    """The names of a module, whatever its class makes of looking at them; else none."""
    if is_module(module):
        return object.__getattribute__(module, "__dict__")
    return {}


class KEPT_NAMES:
    """The names of a module as they are, with what its lists and dictionaries hold."""

    def __init__(self, names, same_objects, without=()):
        self.names = names
        self.same_objects = same_objects
        self.without = frozenset(without)
        self.values = dict(names)
        self.contents = [(value, type(value)(value)) for name, value in names.items()
                         if type(value) in (list, dict) and name not in self.without]

    def content_of(self, name):
        """What a list of these names is to hold."""
        noted = self.values.get(name)
        for value, content in self.contents:
            if value is noted:
                return content
        return []

    def put_back(self):
        if not self.same_objects(self.names, self.values):
            self.put_back_names()
        for value, content in self.contents:
            if self.same_objects(value, content):
                continue
            if type(value) is list:
                value[:] = content
            else:
                value.clear()
                value.update(content)

    def put_back_names(self):
        for name in [name for name in self.names if name not in self.values]:
            if name not in self.without:
                del self.names[name]
        for name, value in self.values.items():
            if name not in self.without and (name not in self.names or
                                             self.names[name] is not value):
                self.names[name] = value


class EXITS:
    """Stands for the functions of atexit: what is registered belongs to a session."""

    def __init__(self, order):
        self.entries = []
        self.own = {name: getattr(atexit, name)
                    for name in ("register", "unregister", "_clear", "_run_exitfuncs",
                                 "_ncallbacks")}

        def register(func, *args, **kwargs):
            """Registers a function that is called when the session ends."""
            if not callable(func):
                raise TypeError("the first argument must be callable")
            if not order.is_own_thread():
                return self.own["register"](func, *args, **kwargs)
            caller = sys_getframe(1)
            self.entries.append((func, args, kwargs, caller.f_globals,
                                 order.is_importing(caller)))
            return func

        def unregister(func):
            """Takes back every registration of a function."""
            self.entries[:] = [entry for entry in self.entries if not entry[0] == func]
            self.own["unregister"](func)

        def _clear():
            """Takes back every registration."""
            self.entries.clear()

        def _run_exitfuncs():
            """Runs what is registered."""
            self.run()

        def _ncallbacks():
            """The number of registrations."""
            return len(self.entries)

        self.session = {"register": register, "unregister": unregister, "_clear": _clear,
                        "_run_exitfuncs": _run_exitfuncs, "_ncallbacks": _ncallbacks}

    def begin(self):
        names_of(atexit).update(self.session)

    def end(self):
        names_of(atexit).update(self.own)
        self.session = {}  # which held this object

    def run(self):
        while self.entries:
            func, args, kwargs = self.entries.pop()[:3]
            run_exit_function(func, args, kwargs)


sys_getframe = sys._getframe


def run_exit_function(func, args=(), kwargs={}):
    try:
        func(*args, **kwargs)
    except SystemExit:
        # The end of Python is the end of the session already.
        if sys.version_info >= (3, 10):
            print_failure("Exception ignored in atexit callback: %r" % (func,))
    except BaseException:
        if sys.version_info >= (3, 10):
            print_failure("Exception ignored in atexit callback: %r" % (func,))
        else:
            print_failure("Error in atexit._run_exitfuncs:")


def print_failure(title):
    """Prints the exception that is being handled, without the frame of this file."""
    kind, value, trace = sys.exc_info()
    try:
        stream = sys.stderr
        if stream is not None:
            stream.write(title + "\n")
            if trace is not None:
                value.__traceback__ = trace.tb_next
            sys.__excepthook__(kind, value, trace.tb_next if trace is not None else None)
    except BaseException:
        pass


def flush(name):
    try:
        stream = getattr(sys, name, None)
        if stream is not None:
            stream.flush()
    except BaseException:
        pass


def form_of(stream):
    """What streams that are made like another need to know of it."""
    return (isinstance(getattr(stream, "buffer", None), io.RawIOBase),
            getattr(stream, "encoding", None) or "utf-8",
            getattr(stream, "errors", None) or "strict")


def new_stream(name, number, form):
    """A standard stream as Python makes it at its start."""
    unbuffered, encoding, errors = form
    writes = number > 0
    unbuffered = writes and unbuffered
    try:
        raw = binary = io.open(number, "wb" if writes else "rb", 0 if unbuffered else -1,
                               closefd=False)
    except OSError:
        return None
    if not unbuffered:
        raw = binary.raw
    raw.name = "<%s>" % name
    at_terminal = raw.isatty()
    if type(raw).__name__ == "_WindowsConsoleIO":
        encoding = "utf-8"
    stream = io.TextIOWrapper(
        binary, encoding, errors,
        None if sys.platform == "win32" else "\n",
        at_terminal or unbuffered or (number == 2 and sys.version_info >= (3, 9)), unbuffered)
    stream.mode = "w" if writes else "r"
    return stream


FOLDERS = {}


def folder_of(path):
    """A path in the form in which folders are compared; none where it is no path."""
    if not isinstance(path, str):
        return None
    folder = FOLDERS.get(path)
    if folder is None:
        try:
            folder = os.path.normcase(os.path.abspath(path)).rstrip(os.sep) + os.sep
        except (OSError, ValueError):
            return None
        if os.path.isabs(path):
            if len(FOLDERS) > 500:
                FOLDERS.clear()
            FOLDERS[path] = folder
    return folder


def new_main_module(names):
    main = MODULE_TYPE("__main__")
    main_names = main.__dict__
    main_names.clear()
    main_names.update(names)
    if "__annotations__" in names:
        main_names["__annotations__"] = {}
    return main


MONITORING = getattr(sys, "monitoring", None)  # since Python 3.12


def tools_that_monitor():
    """The numbers of the tools that sys.monitoring has in use."""
    if MONITORING is None:
        return ()
    return [number for number in range(6) if MONITORING.get_tool(number) is not None]


def take_out_tool(number):
    MONITORING.set_events(number, 0)
    for event in vars(MONITORING.events).values():
        if isinstance(event, int) and event:
            MONITORING.register_callback(number, event, None)
    MONITORING.free_tool_id(number)


def environment_from(entries):
    """What os.environ holds for entries of the process, bytes "NAME=VALUE"."""
    names = {}
    for entry in entries:
        name, found, value = entry.partition(b"=")
        if not found:
            continue
        if sys.platform == "win32":
            name = name.decode("utf-8", "replace").upper()
            value = value.decode("utf-8", "replace")
        names.setdefault(name, value)
    return names


def time_zone():
    """What Python takes for the process's time zone."""
    names = names_of(MODULES.get("time"))
    return [names.get(name) for name in ("timezone", "altzone", "daylight", "tzname")]


def set_time_zone():
    """Has the C library and Python look at TZ, where the platform can."""
    names_of(MODULES.get("time")).get("tzset", bool)()


class ORDER:
    """What an interpreter is to be like between sessions.

    `kept` tells an interpreter of the library's own from a host's. `same_objects` is the library's
    function that tells whether two lists or dictionaries hold the same objects.
    """

    def __init__(self, kept, same_objects):
        self.kept = kept
        self.same_objects = same_objects
        self.exits = EXITS(self)
        self.failures = []
        self.environment_object = os.environ
        self.environment_bytes = getattr(os, "environb", None)
        self.first = True
        self.hidden = {}
        self.entries = None
        self.environment_at_start = {}
        self.threads = ()
        self.thread = None
        self.own_threads = []
        self.starters = {}
        self.main_module = None
        if kept:
            # The calling thread becomes the main one for both.
            import signal
            import threading
            self.main_names = dict(names_of(MODULES["__main__"]))
            self.always_loaded = NAMES_AT_START | ALWAYS_LOADED
        else:
            self.main_names = {
                "__name__": "__main__", "__doc__": None, "__package__": None, "__spec__": None,
                "__loader__": None, "__builtins__": builtins, "__annotations__": {}}
            loader = names_of(MODULES.get("_frozen_importlib")).get("BuiltinImporter")
            self.main_names["__loader__"] = loader
            self.always_loaded = ALWAYS_LOADED
        self.note()
        if kept:
            gc.collect()
            gc.freeze()

    def note(self):
        """Notes what later sessions are to find."""
        self.modules = dict(MODULES)
        self.folders = tuple(filter(None, map(folder_of, sys.path)))
        self.sys_names = KEPT_NAMES(
            names_of(sys), self.same_objects, ("modules", "path_importer_cache") +
            (("stdin", "stdout", "stderr", "__stdin__", "__stdout__", "__stderr__")
             if self.kept else ()))
        self.current = {name: getattr(sys, "__%s__" % name, None) for name, _ in STREAMS}
        self.stream_forms = {name: form_of(stream) for name, stream in self.current.items()}
        self.path_importer_cache = sys.path_importer_cache
        self.cached_paths = dict(sys.path_importer_cache)
        self.builtins_names = KEPT_NAMES(names_of(builtins), self.same_objects)
        self.os_names = KEPT_NAMES(names_of(os), self.same_objects)
        self.warnings_names = KEPT_NAMES(names_of(warnings), self.same_objects,
                                         ("_filters_version", "onceregistry"))
        self.recursion_limit = sys.getrecursionlimit()
        self.switch_interval = sys.getswitchinterval()
        self.stack_size = _thread.stack_size()
        self.tools = tools_that_monitor()
        self.faults = self.shows_faults()
        self.traces_memory = self.is_tracing_memory()
        self.trace = sys.gettrace()
        self.profile = sys.getprofile()
        self.async_generator_hooks = tuple(sys.get_asyncgen_hooks())
        self.coroutine_depth = sys.get_coroutine_origin_tracking_depth()
        self.library_flags = sys.getdlopenflags() if hasattr(sys, "getdlopenflags") else None
        self.digits = (sys.get_int_max_str_digits() if hasattr(sys, "get_int_max_str_digits")
                       else None)
        self.collector = (gc.isenabled(), gc.get_threshold(), gc.get_debug(), list(gc.callbacks))
        threading = MODULES.get("threading")
        self.thread_names = ({name: names_of(threading)[name]
                              for name in ("_trace_hook", "_profile_hook", "excepthook")
                              if name in names_of(threading)} if threading else {})
        self.signals = self.signal_handlers()
        self.signal_descriptor = self.noted_signal_descriptor()
        self.logging = self.logging_state()
        self.loggers = dict(self.all_loggers())
        self.foreign_types = {name: frozenset(types)
                              for name, types in self.caches_of_foreign_types()}
        self.decimal = self.decimal_state()
        self.zip_folders = frozenset(self.zip_cache())

    # ---- the beginning of a session

    def begin(self, entries):
        """`entries` is the process's environment."""
        if entries != self.entries:
            self.entries = entries
            self.environment_at_start = environment_from(entries)
        self.failures = []
        self.added_at_start = frozenset()
        if self.kept:
            self.refresh_environment()
            if not self.first:
                self.renew_streams()
                self.forget_listings()
        else:
            self.main_module = MODULES.get("__main__")
            self.environment = dict(self.environment_object._data)
            self.freezes = gc.get_freeze_count() == 0
            if self.freezes:
                gc.freeze()
        self.time_zone = time_zone()
        MODULES["__main__"] = new_main_module(self.main_names)
        threading = MODULES.get("threading")
        self.threads = tuple(threading._active.values()) if threading else ()
        if not self.kept:
            self.watch_threads()
        self.exits.begin()
        self.first = False

    def refresh_environment(self):
        names = self.environment_at_start
        data = self.environment_object._data
        if data != names:
            zone = data.get(b"TZ")
            data.clear()
            data.update(names)
            if names.get(b"TZ") != zone:
                set_time_zone()

    def renew_streams(self):
        self.current = {name: new_stream(name, number, self.stream_forms[name])
                        for name, number in STREAMS}
        for name, stream in self.current.items():
            for own_name in (name, "__%s__" % name):
                setattr(sys, own_name, stream)
                # Else the look at the names would always find a change.
                self.sys_names.values[own_name] = stream

    def forget_listings(self):
        for finder in list(self.path_importer_cache.values()):
            forget = getattr(finder, "invalidate_caches", None)
            if forget is not None:
                forget()

    def search_path_is_set(self):
        """Sets aside modules that the folders first on the path hold, too.

        A script would find its own in an interpreter that has not loaded the others.
        """
        self.note_added_folders()
        new = [folder for folder in self.added if folder not in self.added_at_start]
        self.added_at_start = frozenset(self.added)
        for folder in new:
            try:
                found = os.listdir(folder)
            except (OSError, TypeError, ValueError):
                continue
            for entry in found:
                name, point, rest = entry.partition(".")
                if name in MODULES and name not in self.always_loaded and (
                        rest.endswith(("py", "pyc", "pyd", "so")) or not point and
                        any(os.path.exists(os.path.join(folder, entry, "__init__" + ending))
                            for ending in (".py", ".pyc"))):
                    self.set_aside(name)

    def set_aside(self, name):
        for other in list(MODULES):
            if other == name or other.startswith(name + "."):
                self.hidden[other] = MODULES.pop(other)

    # ---- its end

    def end(self):
        """Puts everything in order but the environment, and what only a collection frees.

        That goes when the session's context variables hold nothing any more.
        """
        self.go_through(self.stop_looking, self.note_added_folders, self.end_threads,
                        self.run_exit_functions, self.stop_watching_threads, self.flush_streams,
                        self.keep_finders, self.put_back_sys, self.put_back_modules,
                        self.put_back_library, self.put_back_signals)

    def end_objects(self):
        """Collects what the session made; texts of what failed here and in end()."""
        self.go_through(self.collect, self.take_in_loggers, self.flush_streams)
        return self.failures

    def go_through(self, *steps):
        for step in steps:
            try:
                step()
            except BaseException as failure:
                self.failures.append("%s: %s: %s" % (step.__name__, type(failure).__name__,
                                                     failure))

    def stop_looking(self):
        sys.settrace(self.trace)
        sys.setprofile(self.profile)
        sys.setrecursionlimit(self.recursion_limit)
        sys.setswitchinterval(self.switch_interval)
        _thread.stack_size(self.stack_size)

    # A host's other threads may start some meanwhile, which are none of the session's.

    def watch_threads(self):
        self.thread = _thread.get_ident()
        threading = names_of(MODULES.get("threading"))
        for name in ("start_new_thread", "start_joinable_thread"):  # the second since Python 3.13
            if name in names_of(_thread):
                starter = names_of(_thread)[name]
                self.starters[name] = starter
                names_of(_thread)[name] = self.watched(starter)
                if "_" + name in threading:
                    threading["_" + name] = names_of(_thread)[name]

    def watched(self, starter):
        def start(function, *args, **kwargs):
            thread = getattr(function, "__self__", None)
            if thread is not None and self.is_own_thread():
                self.own_threads.append(thread)
            return starter(function, *args, **kwargs)
        return start

    def is_own_thread(self):
        """Whether what the calling thread does is the session's doing."""
        me = _thread.get_ident()
        if self.kept or me == self.thread:
            return True
        current = names_of(MODULES.get("threading")).get("_active", {}).get(me)
        return any(current is thread for thread in self.own_threads)

    def stop_watching_threads(self):
        threading = names_of(MODULES.get("threading"))
        for name, starter in self.starters.items():
            names_of(_thread)[name] = starter
            if "_" + name in threading:
                threading["_" + name] = starter
        self.thread = None
        self.own_threads.clear()

    def end_threads(self):
        threading = MODULES.get("threading") if not self.kept else self.modules["threading"]
        if threading is None:
            return
        executors = MODULES.get("concurrent.futures.thread")
        queues = names_of(executors).get("_threads_queues", ())
        if self.kept:
            for func in reversed(list(names_of(threading).get("_threading_atexits", ()))):
                run_exit_function(func)
        me = _thread.get_ident()
        while True:
            left = [thread for thread in list(threading._active.values())
                    if not thread.daemon and thread.ident != me and
                    thread is not threading._main_thread and
                    (not any(thread is found for found in self.threads) if self.kept else
                     any(thread is own for own in self.own_threads) and thread not in queues)]
            if not left:
                break
            for thread in left:
                thread.join()
        current = threading._active.get(me)
        if type(current) is threading._DummyThread and current not in self.threads:
            del threading._active[me]
        names_of(threading).update(self.thread_names)
        if self.kept and "excepthook" not in self.thread_names:
            names_of(threading).pop("excepthook", None)  # Python 3.7 has none
        if not self.thread_names:
            threading.settrace(None)
            threading.setprofile(None)

    def run_exit_functions(self):
        atexit_entries = self.exits.entries
        later = []
        again = []
        for entry in list(atexit_entries):
            owner = entry[3]
            if owner.get("__name__") in ENDED_EACH_TIME and self.is_of_module_that_stays(owner):
                (again if self.kept else later).append(entry)
            elif entry[4]:
                later.append(entry)
        for entry in later:
            atexit_entries.remove(entry)
            self.exits.own["register"](entry[0], *entry[1], **entry[2])
        self.exits.run()
        self.exits.entries.extend(again)
        if not self.kept:
            self.exits.end()
            return
        for name, attribute in (("multiprocessing.util", "_exiting"),
                                ("concurrent.futures.thread", "_shutdown"),
                                ("concurrent.futures.process", "_global_shutdown")):
            if name in MODULES and attribute in names_of(MODULES[name]):
                names_of(MODULES[name])[attribute] = False
        finalize = names_of(MODULES.get("weakref")).get("finalize")
        if finalize is not None:
            finalize._shutdown = False

    def is_of_module_that_stays(self, names):
        name = names.get("__name__")
        module = MODULES.get(name) if isinstance(name, str) else None
        return (module is not None and names_of(module) is names and self.stays(name, module))

    def is_importing(self, frame):
        """Whether a frame is at work for the import of a module that stays, and for no script."""
        self.note_added_folders()
        while frame is not None:
            names = frame.f_globals
            if any(names is names_of(MODULES.get(name))
                   for name in ("_frozen_importlib", "_frozen_importlib_external")):
                # The innermost module that is being imported counts.
                spec = frame.f_locals.get("spec")
                name = getattr(spec, "name", None)
                if name in MODULES:
                    return self.stays(name, MODULES[name])
                if spec is not None:
                    return self.is_of_base(getattr(spec, "origin", None))
            elif not self.is_of_module_that_stays(names):
                return False
            frame = frame.f_back
        return False

    def flush_streams(self):
        flush("stdout")
        flush("stderr")

    def put_back_sys(self):
        self.sys_names.put_back()
        sys.modules = MODULES
        sys.path_importer_cache = self.path_importer_cache
        if self.kept:
            for name, stream in self.current.items():
                setattr(sys, name, stream)
                setattr(sys, "__%s__" % name, stream)
        for path in list(self.path_importer_cache):
            if path not in self.cached_paths and not self.is_base(path):
                del self.path_importer_cache[path]
        for path, finder in self.cached_paths.items():
            self.path_importer_cache.setdefault(path, finder)
        sys.set_asyncgen_hooks(*self.async_generator_hooks)
        sys.set_coroutine_origin_tracking_depth(self.coroutine_depth)
        if self.library_flags is not None:
            sys.setdlopenflags(self.library_flags)
        if self.digits is not None:
            sys.set_int_max_str_digits(self.digits)
        self.builtins_names.put_back()
        self.os_names.put_back()

    def keep_finders(self):
        """Notes new finders of packages that stay, which will not add them again."""
        for name in ("meta_path", "path_hooks"):
            noted = self.sys_names.content_of(name)
            found = getattr(sys, name, None)
            if type(found) is not list or found == noted:
                continue
            for index, finder in enumerate(found):
                home = getattr(finder, "__module__", None)
                if (isinstance(home, str) and home not in self.always_loaded and
                        home in MODULES and self.stays(home, MODULES[home]) and
                        not any(finder is other for other in noted)):
                    noted.insert(index, finder)

    def is_base(self, path):
        folder = folder_of(path)
        return folder is not None and folder.startswith(self.folders)

    # ---- modules

    def stays(self, name, module):
        """Whether a module outlives the session that has loaded it."""
        known = self.modules.get(name)
        if known is not None and known is module:
            return True
        if not is_module(module):
            if module is None:
                return False
            home = getattr(type(module), "__module__", None)
            return (home != "builtins" and is_module(MODULES.get(home)) and
                    self.stays(home, MODULES[home]))
        names = names_of(module)
        spec = names.get("__spec__")
        origin = names.get("__file__") or getattr(spec, "origin", None)
        if isinstance(origin, str):
            return origin in ("built-in", "frozen") or self.is_of_base(origin)
        places = names.get("__path__")
        if places is not None:
            return all(map(self.is_of_base, list(places)))
        parent = name.rpartition(".")[0]
        return bool(parent) and parent in MODULES and self.stays(parent, MODULES[parent])

    def is_of_base(self, path):
        """Whether a file came by a folder of the path as it was noted.

        A folder of a script may lie below one of those, or the other way round: the longer one
        counts, and a script's where they are the same.
        """
        place = folder_of(path)
        if place is None:
            return False
        base = max((len(folder) for folder in self.folders if place.startswith(folder)),
                   default=-1)
        added = max((len(folder) for folder in self.added if place.startswith(folder)),
                    default=-1)
        return base > added

    def note_added_folders(self):
        """Notes the folders that stand on the path beside those that were there."""
        left = list(self.sys_names.content_of("path"))
        added = set()
        for path in list(sys.path) if isinstance(sys.path, (list, tuple)) else ():
            if path in left:
                left.remove(path)
            else:
                added.add(folder_of(path))
        added.discard(None)
        self.added = tuple(self.added_at_start | added)

    added = ()
    added_at_start = frozenset()

    def put_back_modules(self):
        stay = dict(self.modules)
        came = False
        for name, module in list(MODULES.items()):
            if name == "__main__" or self.modules.get(name, self) is module:
                continue
            if name not in self.modules and name not in self.hidden and self.stays(name, module):
                stay[name] = module
                came = True
            else:
                del MODULES[name]
        for name, module in stay.items():
            if name not in MODULES:
                MODULES[name] = module
        if self.main_module is not None:
            MODULES["__main__"] = self.main_module
        else:
            MODULES["__main__"] = new_main_module(self.main_names)
        self.hidden.clear()
        stay.pop("__main__", None)
        self.modules = stay
        self.came = came

    came = False

    def zip_cache(self):
        return names_of(MODULES.get("zipimport")).get("_zip_directory_cache", {})

    # ---- modules of the standard library

    def put_back_library(self):
        self.warnings_names.put_back()
        warnings.onceregistry.clear()
        mutated = getattr(warnings, "_filters_mutated", None)
        if mutated is not None:
            mutated()
        cache = self.zip_cache()
        for path in list(cache):
            if path not in self.zip_folders:
                del cache[path]
        linecache = names_of(MODULES.get("linecache")).get("cache")
        if linecache:
            linecache.clear()
        for forget in names_of(MODULES.get("typing")).get("_cleanups", ()):
            forget()
        self.put_back_logging()
        self.put_back_foreign_types()
        self.put_back_decimal()
        for number in tools_that_monitor():
            if number not in self.tools:
                take_out_tool(number)
        self.put_back_fault_handler()
        if self.is_tracing_memory() and not self.traces_memory:
            MODULES["_tracemalloc"].stop()
        if self.kept:
            sockets = MODULES.get("_socket")
            if sockets is not None:
                sockets.setdefaulttimeout(None)
            events = names_of(MODULES.get("asyncio.events"))
            if events.get("_event_loop_policy") is not None:
                events["_event_loop_policy"] = None

    def shows_faults(self):
        faults = MODULES.get("faulthandler")
        return faults is not None and faults.is_enabled()

    def put_back_fault_handler(self):
        faults = MODULES.get("faulthandler")
        if faults is None:
            return
        if not self.faults:
            faults.disable()
        if not self.kept and "faulthandler" in self.modules:
            return  # what is due later may be the host's
        faults.cancel_dump_traceback_later()
        unregister = getattr(faults, "unregister", None)
        if unregister is not None:
            for number in range(1, 65):
                try:
                    unregister(number)
                except (RuntimeError, ValueError):
                    pass  # one of those that enable() is for, or none at all

    def is_tracing_memory(self):
        tracer = MODULES.get("_tracemalloc")
        return tracer is not None and tracer.is_tracing()

    def decimal_state(self):
        decimal = MODULES.get("decimal")
        if decimal is None:
            return None
        return [(context, context.copy()) for context in
                (decimal.DefaultContext, decimal.BasicContext, decimal.ExtendedContext)]

    def put_back_decimal(self):
        decimal = MODULES.get("decimal")
        if decimal is None:
            return
        if self.decimal is None:
            self.decimal = [
                (decimal.DefaultContext, decimal.Context(
                    28, decimal.ROUND_HALF_EVEN, -999999, 999999, 1, 0, [],
                    [decimal.DivisionByZero, decimal.Overflow, decimal.InvalidOperation])),
                (decimal.BasicContext, decimal.Context(
                    9, decimal.ROUND_HALF_UP, -999999, 999999, 1, 0, [],
                    [decimal.DivisionByZero, decimal.Overflow, decimal.InvalidOperation,
                     decimal.Clamped, decimal.Underflow])),
                (decimal.ExtendedContext, decimal.Context(
                    9, decimal.ROUND_HALF_EVEN, -999999, 999999, 1, 0, [], []))]
        for context, before in self.decimal:
            for name in ("prec", "rounding", "Emin", "Emax", "capitals", "clamp"):
                setattr(context, name, getattr(before, name))
            context.flags = before.flags
            context.traps = before.traps

    def logging_state(self):
        logging = MODULES.get("logging")
        if logging is None:
            return None
        root = logging.root
        return (list(root.handlers), list(root.filters), root.level, root.manager.disable,
                logging.getLoggerClass(), logging.raiseExceptions)

    def put_back_logging(self):
        logging = MODULES.get("logging")
        if logging is None:
            return
        root = logging.root
        state = self.logging or ([], [], logging.WARNING, 0, logging.Logger, True)
        if self.kept:
            for handler in list(root.handlers):
                handler.close()
            for logger in list(root.manager.loggerDict.values()):
                if isinstance(logger, logging.Logger):
                    logger.handlers[:] = [handler for handler in logger.handlers
                                          if type(handler) is logging.NullHandler]
                    logger.filters[:] = []
                    logger.level = logging.NOTSET  # what is cached of it goes with the root's
                    logger.propagate = True
                    logger.disabled = False
            with logging._lock:
                self.take_out_loggers()
        root.handlers[:], root.filters[:] = state[0], state[1]
        root.setLevel(state[2])
        logging.disable(state[3])
        logging.setLoggerClass(state[4])
        logging.raiseExceptions = state[5]

    def all_loggers(self):
        root = names_of(MODULES.get("logging")).get("root")
        return {} if root is None else root.manager.loggerDict

    loggers_taken_out = ()

    def take_out_loggers(self):
        """Takes out loggers that came and bear the name of no module that stays.

        What still holds one after the collection is a module that stays.
        """
        loggers = self.all_loggers()
        if loggers == self.loggers:
            return
        logging = MODULES["logging"]
        root = logging.root
        came = {name: logger for name, logger in loggers.items()
                if self.loggers.get(name) is not logger and
                name.partition(".")[0] not in self.modules}
        gone = frozenset(map(id, came.values()))
        orphans = []
        for name in came:
            del loggers[name]
        for logger in loggers.values():
            if isinstance(logger, logging.PlaceHolder):
                for child in [child for child in logger.loggerMap if id(child) in gone]:
                    del logger.loggerMap[child]
            elif id(logger.parent) in gone:
                orphans.append(logger)
        for logger in orphans:
            root.manager._fixupParents(logger)
        self.loggers_taken_out = []
        for name, logger in came.items():
            if not isinstance(logger, logging.PlaceHolder):
                logger.parent = root
                self.loggers_taken_out.append((name, _weakref.ref(logger)))

    def take_in_loggers(self):
        loggers = self.all_loggers()
        if loggers == self.loggers and not self.loggers_taken_out:
            return
        manager = MODULES["logging"].root.manager
        for name, reference in self.loggers_taken_out:
            logger = reference()
            if logger is None:
                continue
            place = loggers.get(name)
            loggers[name] = logger
            if isinstance(place, MODULES["logging"].PlaceHolder):
                manager._fixupChildren(place, logger)
            manager._fixupParents(logger)
        manager._clear_cache()
        self.loggers_taken_out = ()
        self.loggers = dict(loggers)

    # ---- foreign functions

    def caches_of_foreign_types(self):
        names = names_of(MODULES.get("ctypes"))
        return [(name, names[name]) for name in
                ("_pointer_type_cache", "_c_functype_cache", "_win_functype_cache")
                if name in names]

    def put_back_foreign_types(self):
        """Forgets types that are made of a script's own."""
        for name, types in self.caches_of_foreign_types():
            before = self.foreign_types.get(name, ())
            if len(types) == len(before):
                continue
            for key in [key for key in types if key not in before]:
                if self.is_of_script(key):
                    del types[key]
            self.foreign_types[name] = frozenset(types)

    def is_of_script(self, part):
        """Whether a foreign type, or a tuple of such, is made of a class that does not stay."""
        if isinstance(part, tuple):
            return any(map(self.is_of_script, part))
        if not isinstance(part, type):
            return False
        item = getattr(part, "_type_", None)
        if isinstance(item, type):
            return self.is_of_script(item)  # a pointer or an array
        home = part.__module__
        return (home not in MODULES or not self.stays(home, MODULES[home]) or
                self.is_of_script(getattr(part, "_restype_", None)) or
                self.is_of_script(getattr(part, "_argtypes_", None)))

    # ---- signals

    def signal_handlers(self):
        signals = MODULES.get("_signal")
        if signals is None or "signal" not in MODULES:
            return None
        getsignal = signals.getsignal
        if hasattr(signals, "valid_signals"):  # since Python 3.8
            return {number: getsignal(number) for number in signals.valid_signals()}
        handlers = {}
        for number in range(1, signals.NSIG):
            try:
                handlers[number] = getsignal(number)
            except ValueError:
                pass
        return handlers

    def noted_signal_descriptor(self):
        """The descriptor that Python writes signals to; -1 where there is none."""
        signals = MODULES.get("_signal")
        if signals is None:
            return -1
        mask = getattr(signals, "pthread_sigmask", None)
        if mask is not None:
            # It can only be read by taking it away: meanwhile none may come.
            every = getattr(signals, "valid_signals", lambda: range(1, 32))()
            blocked = mask(signals.SIG_BLOCK, every)
        try:
            descriptor = signals.set_wakeup_fd(-1)
            if descriptor != -1:
                signals.set_wakeup_fd(descriptor)
            return descriptor
        except (OSError, ValueError):
            return -1  # not the main thread, or closed
        finally:
            if mask is not None:
                mask(signals.SIG_SETMASK, blocked)

    def put_back_signals(self):
        """What Python believes; how the process handles signals is put back by the library."""
        now = self.signal_handlers()
        if now is None:
            return
        signals = MODULES["_signal"]
        try:
            signals.set_wakeup_fd(self.signal_descriptor)
        except (OSError, ValueError):
            try:
                signals.set_wakeup_fd(-1)
            except ValueError:
                return  # not the main thread, where nothing can have been set
        for number, handler in now.items():
            if self.signals is not None:
                before = self.signals.get(number)
            elif callable(handler) and handler is not signals.default_int_handler:
                before = signals.SIG_DFL
            else:
                continue
            if handler is not before and handler != before:
                try:
                    signals.signal(number, signals.SIG_DFL if before is None else before)
                except (OSError, ValueError):
                    pass

    # ---- the collector

    def collect(self):
        enabled, thresholds, debug, callbacks = self.collector
        gc.callbacks[:] = callbacks
        gc.set_debug(debug)
        gc.set_threshold(*thresholds)
        if gc.collect():
            gc.collect()
        (gc.enable if enabled else gc.disable)()
        if not self.kept:
            if self.freezes:
                gc.unfreeze()
        elif self.came:
            gc.freeze()

    # ---- the environment, when nothing of the session runs any more

    def put_back_environment(self, entries):
        """`entries` is the process's environment at the end."""
        before = self.environment_at_start
        now = before if entries == self.entries else environment_from(entries)
        if before != now:
            for name in now:
                if name not in before:
                    unset_in_process(name)
            for name, value in before.items():
                if now.get(name) != value:
                    put_in_process(name, value)
        if before.get(b"TZ") != now.get(b"TZ") or self.time_zone != time_zone():
            set_time_zone()
        data = self.environment_object._data
        wanted = before if self.kept else self.environment
        if data != wanted:
            data.clear()
            data.update(wanted)


put_in_process = os.putenv


def unset_in_process(name, unset=getattr(os, "unsetenv", None)):
    if unset is not None:
        unset(name)
    else:
        put_in_process(name, "")
