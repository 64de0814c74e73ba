"""Python binding of the dataExchange library (ctypes, standard library only).

    import dataexchange as dx

    with dx.Handle() as handle:
        handle["Device type"] = 0
        handle["Data type"] = dx.DataType.Precalibration
        handle["Serial number"] = 4711
        handle["Location"] = dx.Location.Server
        name, destination = handle.upload("/data/cal7")

Progress and cancel, a stall timeout, package removal and the configured proxy are opt-in:

    handle.set_progress(lambda stage, done, total: print(stage.name, done, total))
    handle.set_stall_timeout(30)

Passing faults of the server are tried again (two retries unless Handle(retries=N)); with a spool
an item that still fails is kept and sent later:

    with dx.Handle(spool="/var/spool/cal") as handle:
        delivered, remaining = handle.send_spooled()

The library's log lines go to logging.getLogger("dataexchange"): what it does at DEBUG, a file
the zip writer could not pack at WARNING (use_logging(False) gives them back to standard error).

Options are read and written by name; the C type comes from the library's own list of options.
A non-zero result raises DataExchangeError with the result code and the error-list lines, except
ValueCropped, which is reported as a ValueCroppedWarning (the clipped value is stored).
"""
import atexit
import ctypes
import enum
import logging
import operator
import os
import sys
import warnings
from typing import List, NamedTuple, Optional, Tuple

__all__ = ["ENVIRONMENT_VARIABLE", "Result", "OptionType", "ValueKind", "Location", "DataType",
           "Stage",
           "READABLE", "WRITABLE", "DataExchangeError", "ValueCroppedWarning", "Option",
           "Delivery", "Spooled", "LOGGER", "load", "use_logging", "version", "sha1", "Handle"]

#: Path of the shared library, used when no path is given to load() or Handle().
ENVIRONMENT_VARIABLE = "DATAEXCHANGE_LIBRARY"

#: Takes the library's log lines (see use_logging).
LOGGER = logging.getLogger("dataexchange")


class Result(enum.IntEnum):
    Success = 0
    InvalidArgument = 1
    ReadFailed = 10
    WriteFailed = 11
    InvalidOption = 20
    NotAvailable = 21
    HandlerConfigurationFailed = 30
    DataHandlingFailed = 40
    ValueCropped = -20
    BufferTooSmall = -21


class OptionType(enum.IntEnum):
    Int32 = 0
    Uint32 = 1
    Uint64 = 2
    String = 3


class ValueKind(enum.IntEnum):
    Current = 0
    Minimum = 1
    Maximum = 2
    Default = 3


class Location(enum.IntEnum):
    SharedFolder = 1
    Server = 2
    SharedFolderThenServer = 3


class DataType(enum.IntEnum):
    Precalibration = 0
    Cmm = 1
    Forest = 2
    Avt = 3
    Datalogger = 4
    Cit = 5
    LogFile = 6


class Stage(enum.IntEnum):
    """The stages an upload goes through, as a progress function is told."""
    Packing = 1
    SharedFolder = 2
    Upload = 3
    JobRequest = 4
    RetryWait = 5  # milliseconds of the wait before a retry


READABLE = 1  # access bit: the option can be read
WRITABLE = 2  # access bit: the option can be written


class DataExchangeError(Exception):
    """A call returned a failure. result: the code (a Result where known, None when no handle
    could be opened); errors: the lines of the handle's error list."""

    def __init__(self, function: str, result: Optional[int], errors: List[str]):
        self.function = function
        self.result = _result(result) if result is not None else None
        self.errors = errors
        code = "failed" if result is None else "returned %s (%d)" % (
            getattr(self.result, "name", "result"), result)
        super().__init__("%s %s%s" % (function, code, "".join("\n  " + e for e in errors)))


class ValueCroppedWarning(UserWarning):
    """A number outside the option's bounds was clipped; the clipped value was stored."""


class Option(NamedTuple):
    name: str
    summary: str
    description: str
    type: OptionType
    access: int  # READABLE | WRITABLE bits
    current: object
    minimum: object  # None where the option has no such value
    maximum: object
    default: object


class Delivery(NamedTuple):
    name: str  # the delivered file name
    destination: Location  # SharedFolder or Server


class Spooled(NamedTuple):
    item: str  # the item's folder in the spool
    packed: str  # the packed file's name
    destinations: Tuple[Location, ...]  # where it goes, in order
    attempts: int  # made so far
    last_cause: str  # why the last attempt failed, on one line


def _result(code):
    try:
        return Result(code)
    except ValueError:
        return code


_CALLBACK = ctypes.CFUNCTYPE(None, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p,
                             ctypes.c_uint32, ctypes.c_uint32, ctypes.c_void_p)
_PROGRESS = ctypes.CFUNCTYPE(ctypes.c_int32, ctypes.c_uint32, ctypes.c_uint64, ctypes.c_uint64,
                             ctypes.c_void_p)
_LOG = ctypes.CFUNCTYPE(None, ctypes.c_uint32, ctypes.c_char_p, ctypes.c_void_p)
_NUMBERS = {OptionType.Int32: (ctypes.c_int32, -2**31, 2**31 - 1),
            OptionType.Uint32: (ctypes.c_uint32, 0, 2**32 - 1),
            OptionType.Uint64: (ctypes.c_uint64, 0, 2**64 - 1)}
_loaded = {}
_dll_directories = []  # keeps os.add_dll_directory() in force


def _declare(lib):
    vp, size, text = ctypes.c_void_p, ctypes.c_size_t, ctypes.c_char_p
    out = ctypes.POINTER(ctypes.c_char)  # the caller's buffers
    lib.dataExchangeInit.restype = vp
    lib.dataExchangeInit.argtypes = [vp, size, out]
    prototypes = {
        "Close": [ctypes.POINTER(vp)],
        "GetLastErrors": [vp, size, out],
        "Version": [size, out],
        "Sha1": [size, out],
        "EnumerateOptions": [vp, _CALLBACK, vp],
        "GetStringOption": [vp, text, ctypes.c_uint32, size, out],
        "SetStringOption": [vp, text, text],
        "UploadData": [vp, text, size, out, ctypes.POINTER(ctypes.c_uint32)],
        "SetProgressCallback": [vp, _PROGRESS, vp],
        "SetStallTimeout": [vp, ctypes.c_uint32],
        "SetRemovePackage": [vp, ctypes.c_uint32],
        "SetUseConfiguredProxy": [vp, ctypes.c_uint32],
        "SetVerifiedDelivery": [vp, ctypes.c_uint32],
        "GetStoredName": [vp, size, out],
        "SetPackingThreads": [vp, ctypes.c_uint32],
        "SetCompression": [vp, ctypes.c_uint32, ctypes.c_uint32],
        "SetUnicodePaths": [vp, ctypes.c_uint32],
        "SetRetries": [vp, ctypes.c_uint32, ctypes.c_uint32],
        "SetStreamingUpload": [vp, ctypes.c_uint32],
        "SetSpoolFolder": [vp, text],
        "SendSpooled": [vp, ctypes.POINTER(ctypes.c_uint32), ctypes.POINTER(ctypes.c_uint32)],
        "ListSpooled": [vp, size, out],
        "SetLogCallback": [_LOG, vp],
    }
    for kind, (ctype, _, _) in _NUMBERS.items():
        prototypes["Get%sOption" % kind.name] = [vp, text, ctypes.c_uint32, ctypes.POINTER(ctype)]
        prototypes["Set%sOption" % kind.name] = [vp, text, ctype]
    for name, argtypes in prototypes.items():
        function = getattr(lib, "dataExchange" + name)
        function.restype = ctypes.c_int32
        function.argtypes = argtypes


def _log_line(level, line, _context):
    # Called on the library's threads too; nothing may propagate into the library.
    try:
        LOGGER.log(logging.WARNING if level == 1 else logging.DEBUG, "%s",
                   line.decode("utf-8", "backslashreplace"))
    except Exception:  # pylint: disable=broad-except
        pass


# Alive as long as the module: the library may call it from any thread until it is unset.
_log_relay = _LOG(_log_line)


def use_logging(enabled: bool = True, library=None) -> None:
    """Sends the library's log lines to LOGGER (the default once it is loaded), or with False
    back to the library's own output (standard error; the debugger's on Windows)."""
    lib = library if isinstance(library, ctypes.CDLL) else load(library)
    lib.dataExchangeSetLogCallback(_log_relay if enabled else _LOG(), None)  # _LOG(): NULL


def _system_name():
    if os.name == "nt":
        # The Windows wheel carries the DLL, and every DLL it needs, in this package's folder.
        package = os.path.dirname(os.path.abspath(__file__))
        carried = os.path.join(package, "dataExchange.dll")
        if os.path.exists(carried):
            if carried not in _loaded:  # added once
                _dll_directories.append(os.add_dll_directory(package))
            return carried
        return "dataExchange.dll"
    return "libdataExchange.2.dylib" if sys.platform == "darwin" else "libdataExchange.so.2"


def load(path=None, qt_dir=None) -> ctypes.CDLL:
    """Loads the library from path, else from $DATAEXCHANGE_LIBRARY, else the one a Windows wheel
    carries, else through the system loader. qt_dir (Windows): the folder of the Qt and QuaZip
    DLLs, added to the DLL search."""
    if qt_dir is not None and hasattr(os, "add_dll_directory"):
        _dll_directories.append(os.add_dll_directory(os.fspath(qt_dir)))
    path = os.fspath(path or os.environ.get(ENVIRONMENT_VARIABLE) or _system_name())
    if path not in _loaded:
        lib = ctypes.CDLL(path)
        _declare(lib)
        _loaded[path] = lib
        use_logging(True, lib)
        # The library writes lines until it unloads, after the interpreter is gone.
        atexit.register(use_logging, False, lib)
    return _loaded[path]


def _identity(function, library) -> str:
    lib = library if isinstance(library, ctypes.CDLL) else load(library)
    buffer = ctypes.create_string_buffer(256)
    result = getattr(lib, function)(len(buffer), buffer)
    if result != Result.Success:
        raise DataExchangeError(function, result, [])
    return buffer.value.decode("utf-8", "replace")


def version(library=None) -> str:
    """The version text: v2.0.0, the build time in seconds, the build platform."""
    return _identity("dataExchangeVersion", library)


def sha1(library=None) -> str:
    """The 40 hex digits of the library's source revision."""
    return _identity("dataExchangeSha1", library)


def _text(value) -> bytes:
    return value if isinstance(value, bytes) else value.encode("utf-8")


class Handle:
    """One library handle. Use it from one thread at a time; close it, or use it in a with
    block. library: a path, a CDLL from load(), or None (see load()). verified: verified
    delivery (see set_verified_delivery), on unless False is given. threads: the threads that
    pack a folder (see set_packing_threads), one per core unless given. level and
    store_incompressible: how a folder's files are compressed (see set_compression), zlib's
    level 6 with every file deflated unless given. unicode_paths: paths
    of any characters (see set_unicode_paths), on unless False is given. retries: attempts
    after the first for a passing fault of the server (see set_retries), 2 unless given. spool:
    a folder that keeps what still fails (see set_spool_folder), none unless given.
    remove_package: each upload removes its packed copy when it returns (see
    set_remove_package) unless False is given, so that a long-running script leaves no copies
    behind and no cleanup is left for the library's unload, when no logging takes its lines.
    streaming: the upload streams from one thread through libcurl (see set_streaming_upload)
    unless False is given; where the library cannot, it posts through Qt without a word."""

    def __init__(self, library=None, *, qt_dir=None, verified=True, threads=0, level=None,
                 store_incompressible=False, unicode_paths=True, retries=2, spool=None,
                 remove_package=True, streaming=True):
        self._lib = library if isinstance(library, ctypes.CDLL) else load(library, qt_dir)
        message = ctypes.create_string_buffer(1024)
        self._handle = ctypes.c_void_p(self._lib.dataExchangeInit(None, len(message), message))
        if not self._handle.value:
            text = message.value.decode("utf-8", "replace")
            raise DataExchangeError("dataExchangeInit", None, text.splitlines())
        self._types = {name: kind for name, _, _, _, kind in self._describe()}
        self._progress = None  # the C callback object, kept alive while it is set
        self._progress_error = None
        self._unicode_paths = False  # the library's default
        self.set_verified_delivery(verified)
        self.set_packing_threads(threads)
        if level is not None or store_incompressible:
            self.set_compression(6 if level is None else level, store_incompressible)
        self.set_unicode_paths(unicode_paths)
        self.set_retries(retries)
        self.set_remove_package(remove_package)
        if streaming:
            self._try_streaming_upload()
        if spool is not None:
            self.set_spool_folder(spool)

    def close(self) -> None:
        if self._handle.value:
            self._lib.dataExchangeClose(ctypes.byref(self._handle))

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __del__(self):
        if getattr(self, "_handle", None) is not None:
            self.close()

    def _call(self, function: str, *args) -> int:
        if not self._handle.value:
            raise ValueError("the handle is closed")
        result = getattr(self._lib, function)(self._handle, *args)
        if result == Result.ValueCropped:
            warnings.warn(" ".join(self.last_errors()), ValueCroppedWarning, stacklevel=3)
        elif result != Result.Success and result != Result.BufferTooSmall:
            raise DataExchangeError(function, result, self.last_errors())
        return result

    def last_errors(self) -> List[str]:
        """The messages the last call left, one a line; reading empties the list."""
        buffer = ctypes.create_string_buffer(65536)
        self._lib.dataExchangeGetLastErrors(self._handle, len(buffer), buffer)
        text = buffer.raw.split(b"\0", 1)[0].decode("utf-8", "replace")
        return [line for line in text.split("\n") if line]

    def _describe(self):
        rows = []

        def collect(name, summary, description, access, kind, _context):
            rows.append((name.decode("utf-8", "replace"), summary.decode("utf-8", "replace"),
                         description.decode("utf-8", "replace"), access, OptionType(kind)))

        self._call("dataExchangeEnumerateOptions", _CALLBACK(collect), None)
        return rows

    def _type(self, name: str, type, value=None) -> OptionType:
        if type is not None:
            return OptionType(type)
        if name in self._types:
            return self._types[name]
        # Unknown names go to the library, which reports them.
        return OptionType.String if isinstance(value, (str, bytes)) else OptionType.Int32

    def get(self, name: str, which: ValueKind = ValueKind.Current, type=None):
        """The option's current, minimum, maximum or default value (an int or a str)."""
        kind = self._type(name, type)
        if kind == OptionType.String:
            size = 64
            result = Result.BufferTooSmall
            while result == Result.BufferTooSmall:  # grow; each try reads the value anew
                size *= 4
                buffer = ctypes.create_string_buffer(size)
                result = self._call("dataExchangeGetStringOption", _text(name), which, size,
                                    buffer)
            return buffer.value.decode("utf-8", "replace")
        value = _NUMBERS[kind][0]()
        self._call("dataExchangeGet%sOption" % kind.name, _text(name), which, ctypes.byref(value))
        return value.value

    def set(self, name: str, value, type=None) -> None:
        """Writes the option's current value: an int for numeric options, a str otherwise.
        A clipped number is stored and reported as a ValueCroppedWarning."""
        kind = self._type(name, type, value)
        if kind == OptionType.String:
            if not isinstance(value, (str, bytes)):
                raise TypeError("option '%s' takes a str, not %s" % (name, value.__class__))
        else:
            ctype, low, high = _NUMBERS[kind]
            try:
                value = operator.index(value)
            except TypeError:
                message = "option '%s' takes an int, not %s" % (name, value.__class__)
                raise TypeError(message) from None
            if not low <= value <= high:
                raise OverflowError("%d does not fit option '%s' (%s)" % (value, name, kind.name))
        self._call("dataExchangeSet%sOption" % kind.name, _text(name),
                   _text(value) if kind == OptionType.String else value)

    __getitem__ = get
    __setitem__ = set

    def options(self) -> List[Option]:
        """Every option with its texts, type, access and the values it has (None where not)."""
        listing = []
        for name, summary, description, access, kind in self._describe():
            values = []
            for which in ValueKind:
                try:
                    values.append(self.get(name, which, kind))
                except DataExchangeError:
                    values.append(None)
            listing.append(Option(name, summary, description, kind, access, *values))
        return listing

    def set_progress(self, function) -> None:
        """function(stage, done, total) is called during each upload on the caller's thread; a
        true result cancels the upload, which then raises DataExchangeError ("Upload cancelled
        by the host"). An exception in function cancels too and is raised again. None removes
        it."""
        if function is None:
            self._progress = None
            self._call("dataExchangeSetProgressCallback", _PROGRESS(), None)
            return

        def relay(stage, done, total, _context):
            try:
                return 1 if function(Stage(stage), done, total) else 0
            except BaseException as error:  # must not cross the C boundary
                self._progress_error = error
                return 1

        self._progress = _PROGRESS(relay)
        self._call("dataExchangeSetProgressCallback", self._progress, None)

    def set_stall_timeout(self, seconds: int) -> None:
        """Abort a request during which no bytes moved for seconds; 0 waits forever."""
        self._call("dataExchangeSetStallTimeout", seconds)

    def set_remove_package(self, enable: bool) -> None:
        """Remove each upload's temporary folder when the upload returns."""
        self._call("dataExchangeSetRemovePackage", 1 if enable else 0)

    def set_use_configured_proxy(self, enable: bool) -> None:
        """Send the requests through the Proxy of config.xml."""
        self._call("dataExchangeSetUseConfiguredProxy", 1 if enable else 0)

    def set_verified_delivery(self, enable: bool) -> None:
        """On: an upload counts only when the server names what it stored, and a failure says
        why; off: any answer of the server counts, as the library does by default."""
        self._call("dataExchangeSetVerifiedDelivery", 1 if enable else 0)

    def set_packing_threads(self, threads: int) -> None:
        """0: one thread per core; 1: the calling thread alone, as the library packs by default;
        N: N threads (over 32: a ValueCroppedWarning, and 32). More threads give the same archive,
        except that a file holding most of a big folder is packed in blocks."""
        self._call("dataExchangeSetPackingThreads", threads)

    def set_compression(self, level: int, store_incompressible: bool = False) -> None:
        """level 1 (fastest) to 9 (smallest) deflates a folder's files at that level, 0 stores
        them (over 9: a ValueCroppedWarning, and 9); store_incompressible: a file whose first
        128 KiB deflate cannot shrink is stored instead. The archive stays the same at every
        thread count; unset, every file is deflated at level 6, as the library packs by
        default."""
        self._call("dataExchangeSetCompression", level, 1 if store_incompressible else 0)

    def set_unicode_paths(self, enable: bool) -> None:
        """On: upload() passes a str path as UTF-8, and on Windows the library reaches every
        name, whatever its characters; off: as os.fsencode() gives it, the library's default,
        which on Windows is the ANSI code page and cannot hold every name. A bytes path goes as
        it is either way."""
        self._call("dataExchangeSetUnicodePaths", 1 if enable else 0)
        self._unicode_paths = bool(enable)

    def set_streaming_upload(self, enable: bool) -> None:
        """On: the upload's body goes out from one thread in large writes through libcurl, at
        the speed of a fast link; off: through Qt, as the library posts by default. The server
        sees the same requests either way. Raises DataExchangeError (NotAvailable) where the
        library finds no libcurl."""
        self._call("dataExchangeSetStreamingUpload", 1 if enable else 0)

    def _try_streaming_upload(self) -> None:
        if self._lib.dataExchangeSetStreamingUpload(self._handle, 1) == Result.NotAvailable:
            self.last_errors()  # its one line says what the host already knows

    def set_retries(self, retries: int, first_delay_ms: int = 1000) -> None:
        """A delivery to the server that meets a passing fault (refused, reset, busy, stalled) is
        tried again up to retries times within the call, after first_delay_ms, then twice as
        long each time (less a random part) or as long as the server asks; 0 makes one attempt,
        as the library does by default. Over 20: a ValueCroppedWarning, and 20."""
        self._call("dataExchangeSetRetries", retries, first_delay_ms)

    def set_spool_folder(self, path) -> None:
        """An item whose delivery still fails is kept in the folder path (made when needed), for
        send_spooled(); the failure's errors end with where. None keeps nothing."""
        self._call("dataExchangeSetSpoolFolder",
                   None if path is None else self._utf8(os.fspath(path)))

    def send_spooled(self) -> Tuple[int, int]:
        """Delivers every item of the spool folder, oldest first, with verified delivery; returns
        (delivered, remaining). When items remain it raises DataExchangeError with one message
        per item and the counts as .delivered and .remaining."""
        delivered, remaining = ctypes.c_uint32(0), ctypes.c_uint32(0)
        try:
            self._with_progress("dataExchangeSendSpooled", ctypes.byref(delivered),
                                ctypes.byref(remaining))
        except DataExchangeError as error:
            error.delivered, error.remaining = delivered.value, remaining.value
            raise
        return delivered.value, remaining.value

    def list_spooled(self) -> List[Spooled]:
        """The items of the spool folder, oldest first."""
        size = 16384
        result = Result.BufferTooSmall
        while result == Result.BufferTooSmall:  # grow; each try lists the folder anew
            size *= 4
            buffer = ctypes.create_string_buffer(size)
            result = self._call("dataExchangeListSpooled", size, buffer)
        items = []
        for line in buffer.value.decode("utf-8", "replace").split("\n")[:-1]:
            item, packed, destinations, attempts, cause = line.split("\t", 4)
            items.append(Spooled(item, packed, tuple(Location(int(d)) for d in
                                                     destinations.split(",")), int(attempts),
                                 cause))
        return items

    @staticmethod
    def _utf8(path) -> bytes:
        # A POSIX name that is not UTF-8 keeps its bytes, which the library then names.
        return path if isinstance(path, bytes) else path.encode("utf-8", "surrogateescape")

    def _path(self, path) -> bytes:
        path = os.fspath(path)
        if isinstance(path, bytes) or not self._unicode_paths:
            return os.fsencode(path)
        return self._utf8(path)

    def stored_name(self) -> str:
        """The name the server answered for the last upload (it may differ from the delivered
        name when the server keeps every upload); "" without an answer."""
        buffer = ctypes.create_string_buffer(4096)
        self._call("dataExchangeGetStoredName", len(buffer), buffer)
        return buffer.value.decode("utf-8", "replace")

    def _with_progress(self, function: str, *args) -> int:
        """A call during which the progress function runs: what it raised is raised again."""
        self._progress_error = None
        try:
            return self._call(function, *args)
        finally:
            error, self._progress_error = self._progress_error, None
            if error is not None:
                raise error

    def upload(self, path) -> Delivery:
        """Packs and delivers a file or folder as the "Location" option says; blocks until
        done. Returns the delivered file name and the destination that took it."""
        name = ctypes.create_string_buffer(4096)
        used = ctypes.c_uint32(0)
        result = self._with_progress("dataExchangeUploadData", self._path(path), len(name), name,
                                     ctypes.byref(used))
        if result == Result.BufferTooSmall:  # delivered, but the name did not fit
            raise DataExchangeError("dataExchangeUploadData", result, self.last_errors())
        return Delivery(name.value.decode("utf-8", "replace"), Location(used.value))
