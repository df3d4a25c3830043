"""Install attribution and in-app analytics for Python hosts, over libquorvel's C API."""

from __future__ import annotations

import atexit
import ctypes
import errno
import itertools
import json
import logging
import math
import os
import queue
import socket
import ssl
import sys
import threading
import time
import weakref
from dataclasses import dataclass, field
from typing import Any, Callable, Dict, List, Optional, Tuple, Union

from . import _native
from ._native import lib

__all__ = ["DeliveryStats", "QuorvelError", "Request", "Response", "Tracker", "version"]

PathArg = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]
Headers = List[Tuple[str, str]]

INVALID_ARGUMENT = 1
FAILED = 4
# A flush is made of slices this long, so that a signal (Ctrl-C) reaches Python between them.
_FLUSH_SLICE = 0.1
# What a tracker still open at interpreter exit may spend flushing before it is released.
_EXIT_FLUSH_BOUND = 1.0
# How long the exit waits for the release notices still to come (trackers closed from inside
# their own callbacks, which the library releases once that callback returned).
_EXIT_NOTICE_BOUND = 2.0

# The library's log lines, at their own levels (its trace level sits below DEBUG).
_log = logging.getLogger("quorvel")
_LOG_LEVELS = {1: logging.ERROR, 2: logging.WARNING, 3: logging.INFO, 4: logging.DEBUG, 5: 5}


def _log_line(_user_data: Any, level: int, pointer: int, length: int) -> None:
    # Never raises into the library: logging reports its own handler errors. A callback like
    # the others: a tracker collected in it is released once it returned, not waited for here.
    _in_callback.depth = getattr(_in_callback, "depth", 0) + 1
    try:
        python_level = _LOG_LEVELS.get(level, logging.INFO)
        if _log.isEnabledFor(python_level):
            _log.log(python_level, "%s", _text(pointer, length))
    finally:
        _in_callback.depth -= 1


# One C function for every tracker, alive as long as the module.
_C_LOG_LINE = _native.LOG_CALLBACK(_log_line)


class QuorvelError(Exception):
    """The library refused or could not do what was asked; `status` is its status code."""

    def __init__(self, status: int, what: str) -> None:
        text = lib.quorvel_status_text(status).decode()
        super().__init__(f"{what}: {text}")
        self.status = status


@dataclass(frozen=True)
class DeliveryStats:
    accepted: int
    delivered: int
    waiting: int
    kept_as_files: int
    dropped_over_size: int
    dropped_over_age: int
    dropped_by_rule: int
    repeated: int
    data_directory_held_elsewhere: bool
    refused: int  # answered 4xx (but 429): never sent again
    retrying: int  # answered 5xx or 429, to go again (counted in `waiting` too)
    not_kept: int  # their record refused by the disk: sent from memory only
    dropped_unreadable: int  # left by an earlier run, but not readable


@dataclass(frozen=True)
class Request:
    """A request for a host's own transport."""
    method: str
    url: str
    headers: Headers
    body: bytes
    timeout: float  # seconds


@dataclass(frozen=True)
class Response:
    """What a host's transport returns: the service's answer, whatever its status."""
    status: int
    headers: Headers = field(default_factory=list)
    body: bytes = b""

    def __post_init__(self) -> None:
        _http_status(self.status)


def _http_status(value: Any) -> int:
    # Three digits: ctypes would wrap a larger int silently into another status.
    if isinstance(value, bool) or not isinstance(value, int):
        raise TypeError(f"status must be an int, not {type(value).__name__}")
    if not 100 <= value <= 999:
        raise ValueError(f"status {value} is not an HTTP status")
    return value


def _header_pairs(text: str) -> Headers:
    pairs = []
    for line in text.split("\r\n"):
        name, colon, value = line.partition(":")
        if colon:
            pairs.append((name, value.lstrip()))
    return pairs


_in_callback = threading.local()

# What each tracker lent the library (its C functions and its transport), by key, kept until
# the library's release notice says that none of them runs or will run again: a send blocking
# past close's bounded wait, or a close from inside a callback, may still run after close.
_lent: Dict[int, Tuple[Any, ...]] = {}
_lent_keys = itertools.count(1)
# Set by the notice: a close waits for it, so that the notice never calls into an interpreter
# that is ending (the process would crash there).
_notices: Dict[int, threading.Event] = {}


def _release_lent(key: Optional[int]) -> None:
    lent = _lent.pop(key or 0, ())
    for item in lent:
        if isinstance(item, _Transport):
            item.close()
    notice = _notices.pop(key or 0, None)
    if notice is not None:
        notice.set()


_C_RELEASE = _native.RELEASE_CALLBACK(_release_lent)


# The library's codes for a send that raised. Whether the request may have reached the
# service decides whether its next copy counts as a repeat in the delivery statistics.
_NEVER_CONNECTED = -1004
_FAILURE_CODES = ((socket.gaierror, -1003),  # no such host: never left
                  (ConnectionRefusedError, _NEVER_CONNECTED),
                  (ssl.SSLCertVerificationError, -1202),  # refused before any request
                  (TimeoutError, -1001),  # socket.timeout too: the request may have arrived
                  (ConnectionError, -1005))  # reset or aborted under way: it may have arrived
_NO_ROUTE = {errno.ENETUNREACH: -1009, errno.EHOSTUNREACH: _NEVER_CONNECTED,
             errno.ECONNREFUSED: _NEVER_CONNECTED}
_MAY_HAVE_ARRIVED = -1


def _failure_code(error: BaseException) -> int:
    """The code for what a host's send raised, from the error or what caused it (an HTTP
    library's own error wraps the socket's). One it cannot tell counts as maybe arrived."""
    seen = set()
    current: Optional[BaseException] = error
    while current is not None and id(current) not in seen:
        seen.add(id(current))
        for kind, code in _FAILURE_CODES:
            if isinstance(current, kind):
                return code
        if isinstance(current, OSError) and current.errno in _NO_ROUTE:
            return _NO_ROUTE[current.errno]
        reason = getattr(current, "reason", None)  # urllib's URLError keeps it there
        current = reason if isinstance(reason, BaseException) else (
            current.__cause__ or current.__context__)
    return _MAY_HAVE_ARRIVED


class _Reply:
    """The library's reply handle for one request. Answered once whatever happens: a second
    answer would end a handle the library has already released."""

    def __init__(self, handle: int) -> None:
        self._handle: Optional[int] = handle
        self._lock = threading.Lock()

    @property
    def answered(self) -> bool:
        return self._handle is None

    def take(self) -> bool:
        """Right before the request is sent: False when the library no longer waits for it
        (timed out while queued, or given up at a stop): it must not be sent then."""
        handle = self._handle
        return handle is not None and bool(lib.quorvel_transport_take(handle))

    def _take(self) -> Optional[int]:
        with self._lock:
            handle, self._handle = self._handle, None
        return handle

    def respond(self, status: int, headers: bytes, body: bytes) -> None:
        handle = self._take()
        if handle is not None:
            lib.quorvel_transport_respond(handle, status, headers, len(headers), body, len(body))

    def fail(self, message: str, code: int = _NEVER_CONNECTED) -> None:
        handle = self._take()
        if handle is not None:
            data = message.encode(errors="replace")
            lib.quorvel_transport_fail(handle, code, data, len(data))


class _Transport:
    """Calls a Python transport on worker threads of its own, so that a slow request never
    holds a library thread, and answers the library through the reply handle. The workers are
    daemon threads: a send that hangs never holds the interpreter's exit (a pool's workers
    would be joined there, after running every request still queued)."""

    def __init__(self, send: Callable[[Request], Response], workers: int = 4) -> None:
        self._send = send
        self._closed = False
        self._requests: "queue.SimpleQueue[Optional[Tuple[Request, _Reply]]]" = queue.SimpleQueue()
        self._lock = threading.Lock()
        self._workers = 0
        self._max_workers = workers
        # Kept by the tracker's entry in _lent until the library's release notice.
        self.c_function = _native.TRANSPORT_SEND(self._hand_over)

    def _hand_over(self, _user_data: Any, c_request: Any, handle: int) -> None:
        reply = _Reply(handle)
        try:
            r = c_request.contents
            request = Request(
                method=ctypes.string_at(r.method, r.method_length).decode(),
                url=ctypes.string_at(r.url, r.url_length).decode(),
                headers=_header_pairs(ctypes.string_at(r.headers, r.headers_length).decode()),
                body=ctypes.string_at(r.body, r.body_length) if r.body_length else b"",
                timeout=r.timeout_ms / 1000.0)
            with self._lock:
                if self._closed:
                    raise RuntimeError("the transport is closed")
                self._requests.put((request, reply))
                start = self._workers < self._max_workers
                self._workers += start
            if start:
                self._start_worker()
        except Exception as error:  # noqa: BLE001 - closed, no thread, or the interpreter exits
            # Still queued when no worker could start: a worker skips it, answered.
            reply.fail(str(error))

    def _start_worker(self) -> None:
        try:
            threading.Thread(target=self._work, name="quorvel-http", daemon=True).start()
        except BaseException:
            with self._lock:
                self._workers -= 1  # never started: a later request starts one
            raise

    def _work(self) -> None:
        while True:
            item = self._requests.get()
            if item is None:
                return
            self._answer(*item)

    def _answer(self, request: Request, reply: _Reply) -> None:
        if reply.answered:
            return
        if not reply.take():
            # The library failed it while it waited here (it never left, and the report goes
            # again later: sending this copy too would make a repeat), or gave it up at a stop
            # or a forgetting, after which nothing may leave.
            reply.fail("timed out before it was sent")
            return
        if self._closed:
            reply.fail("the transport is closed")
            return
        try:
            response = self._send(request)
            headers = "".join(f"{name}: {value}\r\n" for name, value in response.headers)
            reply.respond(_http_status(response.status), headers.encode(), bytes(response.body))
        except Exception as error:  # noqa: BLE001 - any failure is a transport failure
            reply.fail(str(error), _failure_code(error))

    def close(self) -> None:
        # Never joins: a close may run on one of the workers (a tracker collected there), and
        # a request under way ends by its own timeout. Those queued fail at once.
        with self._lock:
            self._closed = True
            workers = self._workers
        for _ in range(workers):
            self._requests.put(None)


def version() -> str:
    """The library's version ("4.8.0")."""
    return lib.quorvel_version().decode()


def _utf8(value: Optional[str], name: str) -> Tuple[Optional[bytes], int]:
    if value is None:
        return None, 0
    if not isinstance(value, str):
        raise TypeError(f"{name} must be a str, not {type(value).__name__}")
    data = value.encode("utf-8")
    return data, len(data)


def _path(value: Optional[PathArg], name: str) -> Tuple[Optional[bytes], int]:
    if value is None:
        return None, 0
    if not isinstance(value, (str, bytes, os.PathLike)):
        raise TypeError(f"{name} must be a path, not {type(value).__name__}")
    data = os.fsencode(value)
    return data, len(data)


def _callable(value: Any, name: str) -> None:
    if value is not None and not callable(value):
        raise TypeError(f"{name} must be callable, not {type(value).__name__}")


# Longer than any wait or age the library has a use for (its own bound on an outbox age): a
# larger number is a mistake, and ctypes would wrap it silently.
_LONGEST_SECONDS = 10 * 366 * 24 * 3600
_UINT64_MAX = 2**64 - 1


def _seconds(value: Any, name: str) -> float:
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        raise TypeError(f"{name} must be a number of seconds, not {type(value).__name__}")
    if math.isnan(value) or not 0 <= value <= _LONGEST_SECONDS:
        raise ValueError(f"{name} must be between 0 and {_LONGEST_SECONDS} seconds")
    return float(value)


def _text(pointer: int, length: int) -> str:
    return ctypes.string_at(pointer, length).decode("utf-8", errors="replace")


def _call_safely(callback: Callable[..., Any], *arguments: Any) -> None:
    # A Python exception must never unwind into the library's threads, SystemExit and
    # KeyboardInterrupt raised in a host callback included: there is no Python caller to stop.
    _in_callback.depth = getattr(_in_callback, "depth", 0) + 1
    try:
        callback(*arguments)
    except BaseException:  # noqa: BLE001 - printed, as an unhandled thread exception would be
        sys.excepthook(*sys.exc_info())
    finally:
        _in_callback.depth -= 1


class _Callbacks:
    """A tracker's C callbacks, made once: they call whichever Python callables are set when
    they run. The library never holds a function Python has freed, whatever the order of
    set_callbacks calls on several threads, or one made from inside a callback."""

    def __init__(self) -> None:
        # (on_conversion_data, on_conversion_data_failure, on_app_open_attribution)
        self.current: Tuple[Optional[Callable[..., Any]], ...] = (None, None, None)
        self.c = _native.Callbacks()
        lib.quorvel_callbacks_init(ctypes.byref(self.c))
        self.c.on_conversion_data = _native.JSON_CALLBACK(
            lambda _u, pointer, length: self._json(0, pointer, length))
        self.c.on_conversion_data_failure = _native.ERROR_CALLBACK(self._failure)
        self.c.on_app_open_attribution = _native.JSON_CALLBACK(
            lambda _u, pointer, length: self._json(2, pointer, length))
        self._keep = (self.c.on_conversion_data, self.c.on_conversion_data_failure,
                      self.c.on_app_open_attribution)

    def _json(self, which: int, pointer: int, length: int) -> None:
        function = self.current[which]
        if function is not None:
            _call_safely(function, json.loads(_text(pointer, length)))

    def _failure(self, _user_data: Any, code: int, pointer: int, length: int) -> None:
        function = self.current[1]
        if function is not None:
            _call_safely(function, code, _text(pointer, length))


class _Purchases:
    """A tracker's purchase results: one C function for all of them (a function ctypes frees
    while the library runs it would crash), each purchase's callable found by its key."""

    def __init__(self) -> None:
        self._pending: Dict[int, Callable[[bool, Dict[str, Any]], Any]] = {}
        self._lock = threading.Lock()
        self._keys = itertools.count(1)
        self.c = _native.PURCHASE_CALLBACK(self._deliver)

    def add(self, on_result: Callable[[bool, Dict[str, Any]], Any]) -> int:
        key = next(self._keys)
        with self._lock:
            self._pending[key] = on_result
        return key

    def drop(self, key: int) -> None:
        with self._lock:
            self._pending.pop(key, None)

    def _deliver(self, key: Optional[int], succeeded: int, pointer: int, length: int) -> None:
        with self._lock:
            on_result = self._pending.pop(key or 0, None)
        if on_result is not None:
            answer = _text(pointer, length)
            _call_safely(lambda: on_result(bool(succeeded), json.loads(answer)))


class _Handle:
    """The C handle, guarded: calls count themselves in, close waits for them and releases
    the handle once, and a call after close raises QuorvelError."""

    def __init__(self, handle: ctypes.c_void_p, on_release: Callable[[bool], None]) -> None:
        self._handle: Optional[ctypes.c_void_p] = handle
        self._on_release = on_release
        self._changed = threading.Condition()
        self._users: Dict[int, int] = {}
        self._closing = False
        self._release_on_last_exit = False
        self._inherited = False

    def leave_to_parent(self) -> None:
        """In a child made by fork(): the copy is never used, flushed or released here. The
        parent's threads, which its release would wait for, did not come along, and its lock
        may have been copied held."""
        self._changed = threading.Condition()
        self._users = {}
        self._closing = True
        self._inherited = True
        self._handle = None

    @property
    def closed(self) -> bool:
        return self._closing

    def use(self) -> "_Use":
        return _Use(self)

    def _enter(self) -> ctypes.c_void_p:
        with self._changed:
            if self._inherited:
                raise QuorvelError(FAILED, "the tracker belongs to the parent process: "
                                           "make one in this process")
            if self._closing or self._handle is None:
                raise QuorvelError(INVALID_ARGUMENT, "the tracker is closed")
            me = threading.get_ident()
            self._users[me] = self._users.get(me, 0) + 1
            return self._handle

    def _leave(self) -> None:
        with self._changed:
            me = threading.get_ident()
            if me not in self._users:
                return  # entered in the parent, before a fork() that made this child
            self._users[me] -= 1
            if not self._users[me]:
                del self._users[me]
            self._changed.notify_all()
            last = self._release_on_last_exit and not self._users
        if last:
            self._release(wait=False)  # inside a call: the notice waits for it to end

    def close(self) -> None:
        # Inside a callback a call under way (on this thread or another) may be waiting for
        # this very callback: the last call out releases the handle instead of waiting here.
        inside = getattr(_in_callback, "depth", 0) > 0
        me = threading.get_ident()
        try:
            with self._changed:
                if self._closing:
                    return
                self._closing = True
                # Planned before the wait: one cut short (Ctrl-C) still leaves the release to
                # the last call out.
                self._release_on_last_exit = True
                if not inside and me not in self._users:
                    self._changed.wait_for(lambda: not self._users)
        finally:
            with self._changed:
                idle = self._release_on_last_exit and not self._users
            if idle:
                self._release(wait=not inside)

    def _release(self, wait: bool) -> None:
        with self._changed:
            handle, self._handle = self._handle, None
        if handle is not None:
            lib.quorvel_tracker_destroy(handle)
            self._on_release(wait)


class _Use:
    def __init__(self, guard: _Handle) -> None:
        self._guard = guard

    def __enter__(self) -> ctypes.c_void_p:
        return self._guard._enter()

    def __exit__(self, *exc: Any) -> None:
        self._guard._leave()


_open_trackers: "weakref.WeakSet[Tracker]" = weakref.WeakSet()


def _leave_trackers_to_parent() -> None:
    for tracker in list(_open_trackers):
        tracker._handle.leave_to_parent()
        _open_trackers.discard(tracker)
    _notices.clear()  # the parent's: none comes in this child, whose exit never waits for one


if hasattr(os, "register_at_fork"):
    os.register_at_fork(after_in_child=_leave_trackers_to_parent)


@atexit.register
def _close_at_exit() -> None:
    # Released before the interpreter goes: no library thread may call into Python later.
    for tracker in list(_open_trackers):
        tracker._close_within(min(tracker._flush_timeout, _EXIT_FLUSH_BOUND))
    # A tracker closed (or collected) inside its own callback is released once that callback
    # returned, and its notice calls into Python: it must come before the interpreter ends.
    deadline = time.monotonic() + _EXIT_NOTICE_BOUND
    for notice in list(_notices.values()):
        notice.wait(max(0.0, deadline - time.monotonic()))


class Tracker:
    """One tracker on the POSIX platform. Use it as a context manager: leaving the block
    flushes and releases it, in at most `flush_timeout` seconds all told.

    While stopped (`stopped = True`), the calls that collect or send do nothing and return
    False (True when taken); the settings about the user (`customer_user_id`,
    `set_custom_data`) and `uid` raise QuorvelError with status 6; the other settings are
    kept and apply once the library runs again."""

    def __init__(self, data_directory: Optional[PathArg] = None, *,
                 keychain_directory: Optional[PathArg] = None,
                 bundle_identifier: Optional[str] = None, service_domain: Optional[str] = None,
                 extra_ca_file: Optional[PathArg] = None,
                 receipt_path: Optional[PathArg] = None, dev_key: Optional[str] = None,
                 app_id: Optional[str] = None,
                 transport: Optional[Callable[[Request], Response]] = None,
                 flush_timeout: float = 5.0) -> None:
        self._flush_timeout = _seconds(flush_timeout, "flush_timeout")
        _callable(transport, "transport")
        options = _native.Options()
        lib.quorvel_options_init_sized(ctypes.byref(options), ctypes.sizeof(options))
        # Kept referenced until the call returns: the library copies what it keeps.
        keep = []
        for name, value, convert in (("data_directory", data_directory, _path),
                                     ("keychain_directory", keychain_directory, _path),
                                     ("bundle_identifier", bundle_identifier, _utf8),
                                     ("service_domain", service_domain, _utf8),
                                     ("extra_ca_file", extra_ca_file, _path),
                                     ("receipt_path", receipt_path, _path)):
            data, length = convert(value, name)
            keep.append(data)
            setattr(options, name, data)
            setattr(options, name + "_length", length)
        # A callable taking a Request and returning a Response (raising when no answer came:
        # ConnectionRefusedError or socket.gaierror, or an error they caused, when the request
        # never left), used instead of the library's own HTTP client.
        self._transport = None if transport is None else _Transport(transport)
        if self._transport is not None:
            options.transport = self._transport.c_function
        self._callbacks = _Callbacks()
        self._purchases = _Purchases()
        key = next(_lent_keys)
        _lent[key] = (self._transport, self._callbacks, self._purchases)
        self._notice = _notices[key] = threading.Event()
        options.transport_user_data = key
        options.transport_release = _C_RELEASE
        handle = ctypes.c_void_p()
        status = lib.quorvel_tracker_create(ctypes.byref(options), ctypes.byref(handle))
        if status != _native.OK:
            _release_lent(key)  # a tracker never made sends no notice
            raise QuorvelError(status, "creating the tracker")
        self._handle = _Handle(handle, self._released)
        # Its lines (written while set_debug is on) go to the logger "quorvel".
        lib.quorvel_set_log_callback(handle, _C_LOG_LINE, None)
        _open_trackers.add(self)
        if dev_key is not None:
            self.dev_key = dev_key
        if app_id is not None:
            self.app_id = app_id

    # --- Lifetime -----------------------------------------------------------------------

    def __enter__(self) -> "Tracker":
        return self

    def __exit__(self, *exc: Any) -> bool:
        self._close_within(self._flush_timeout)
        return False

    def close(self) -> None:
        """Releases the tracker without flushing; what was not answered stays on disk for the
        next start. Waits for the calls under way on other threads; later calls raise
        QuorvelError, and no callback runs once this returns. Idempotent."""
        self._handle.close()

    def _close_within(self, timeout: float) -> None:
        try:
            if not self._handle.closed:
                self.flush(timeout)
        except QuorvelError:
            pass  # what was not answered stays in the outbox for the next start
        finally:
            self.close()

    def _released(self, wait: bool) -> None:
        # The transport's workers stop at the library's release notice, once no send runs. It
        # comes within moments (a send hands its request to a worker and returns); waited for,
        # within the flush bound, so that it never reaches an interpreter that is ending.
        _open_trackers.discard(self)
        if wait:
            self._notice.wait(max(self._flush_timeout, 1.0))

    def __del__(self) -> None:
        handle = getattr(self, "_handle", None)
        if handle is not None:
            handle.close()

    @staticmethod
    def _check(status: int, what: str) -> None:
        if status != _native.OK:
            raise QuorvelError(status, what)

    def _call(self, function: Callable[..., int], what: str, *arguments: Any) -> None:
        with self._handle.use() as handle:
            self._check(function(handle, *arguments), what)

    def _collect(self, function: Callable[..., int], what: str, *arguments: Any) -> bool:
        # A call that collects or sends does nothing while the host has stopped the library:
        # the host's own choice, said by the result rather than an error.
        with self._handle.use() as handle:
            status = function(handle, *arguments)
        if status == _native.STOPPED:
            return False
        self._check(status, what)
        return True

    # --- Settings -------------------------------------------------------------------------

    def _set_text(self, function: Callable[..., int], value: Optional[str], name: str) -> None:
        data, length = _utf8(value, name)
        self._call(function, f"setting {name}", data, length)

    dev_key = property(fset=lambda self, v: self._set_text(lib.quorvel_set_dev_key, v, "dev_key"))
    app_id = property(fset=lambda self, v: self._set_text(lib.quorvel_set_app_id, v, "app_id"))
    customer_user_id = property(
        fset=lambda self, v: self._set_text(lib.quorvel_set_customer_user_id, v,
                                            "customer_user_id"))
    currency_code = property(
        fset=lambda self, v: self._set_text(lib.quorvel_set_currency_code, v, "currency_code"))

    def set_debug(self, on: bool = True) -> None:
        self._call(lib.quorvel_set_debug, "set_debug", 1 if on else 0)

    def set_device_tracking_disabled(self, disabled: bool = True) -> None:
        """The user opted out of device tracking: every report says so."""
        self._call(lib.quorvel_set_device_tracking_disabled, "set_device_tracking_disabled",
                   1 if disabled else 0)

    def set_use_receipt_sandbox(self, on: bool = True) -> None:
        """Purchases are validated against the store's sandbox."""
        self._call(lib.quorvel_set_use_receipt_sandbox, "set_use_receipt_sandbox",
                   1 if on else 0)

    def set_custom_data(self, data: Optional[Dict[str, Any]]) -> None:
        """Custom data sent with every report (a dict), or None to remove it."""
        if data is not None and not isinstance(data, dict):
            raise TypeError("data must be a dict or None")
        text, length = _utf8(None if data is None else json.dumps(data), "data")
        self._call(lib.quorvel_set_custom_data, "set_custom_data", text, length)

    def set_outbox_limits(self, max_bytes: int, max_age: float) -> None:
        """How much the outbox keeps while the service cannot be reached: at most `max_bytes`
        bytes and reports at most `max_age` seconds old (defaults: 16 MiB, 30 days)."""
        if (isinstance(max_bytes, bool) or not isinstance(max_bytes, int)
                or not 0 < max_bytes <= _UINT64_MAX):
            raise ValueError(f"max_bytes must be an int from 1 to {_UINT64_MAX}")
        age = int(_seconds(max_age, "max_age"))
        self._call(lib.quorvel_set_outbox_limits, "set_outbox_limits", max_bytes, age)

    def set_min_time_between_sessions(self, seconds: int) -> None:
        self._call(lib.quorvel_set_min_time_between_sessions, "set_min_time_between_sessions",
                   int(_seconds(seconds, "seconds")))

    @property
    def uid(self) -> str:
        """The install's identifier."""
        size = ctypes.c_size_t(0)
        with self._handle.use() as handle:
            buffer = ctypes.create_string_buffer(64)
            status = lib.quorvel_get_uid(handle, buffer, len(buffer), ctypes.byref(size))
            if status == _native.BUFFER_TOO_SMALL:
                buffer = ctypes.create_string_buffer(size.value)
                status = lib.quorvel_get_uid(handle, buffer, len(buffer), ctypes.byref(size))
        self._check(status, "uid")
        return buffer.raw[: size.value].decode()

    # --- Reports ----------------------------------------------------------------------------

    def track_app_launch(self) -> bool:
        return self._collect(lib.quorvel_track_app_launch, "track_app_launch")

    def track_event(self, name: str, values: Union[None, str, Dict[str, Any]] = None) -> bool:
        """An in-app event: `values` is None, a str (one value) or a dict (sent as JSON)."""
        event, event_length = _utf8(name, "name")
        if isinstance(values, dict):
            data, length = _utf8(json.dumps(values), "values")
            return self._collect(lib.quorvel_track_event_with_values, f"track_event({name!r})",
                                 event, event_length, data, length)
        elif values is None or isinstance(values, str):
            data, length = _utf8(values, "value")
            return self._collect(lib.quorvel_track_event, f"track_event({name!r})", event,
                                 event_length, data, length)
        else:
            raise TypeError("values must be None, a str or a dict")

    def app_entered_foreground(self) -> bool:
        """The app came to the foreground (the same as track_app_launch)."""
        return self._collect(lib.quorvel_app_entered_foreground, "app_entered_foreground")

    def app_entered_background(self) -> bool:
        """The app went to the background: counts the session, writes what is pending to disk
        and sends the background statistics."""
        return self._collect(lib.quorvel_app_entered_background, "app_entered_background")

    def handle_push_payload(self, payload: Dict[str, Any]) -> bool:
        """The app was opened from a push notification with this payload."""
        if not isinstance(payload, dict):
            raise TypeError("payload must be a dict")
        text, length = _utf8(json.dumps(payload), "payload")
        return self._collect(lib.quorvel_handle_push_payload, "handle_push_payload", text,
                             length)

    def handle_open_url(self, url: str, source_application: Optional[str] = None) -> bool:
        link, link_length = _utf8(url, "url")
        source, source_length = _utf8(source_application, "source_application")
        return self._collect(lib.quorvel_handle_open_url, "handle_open_url", link, link_length,
                             source, source_length)

    def continue_web_link(self, url: str) -> bool:
        link, length = _utf8(url, "url")
        return self._collect(lib.quorvel_continue_web_link, "continue_web_link", link, length)

    def register_uninstall(self, token: bytes) -> bool:
        if not isinstance(token, (bytes, bytearray)) or not token:
            raise TypeError("token must be non-empty bytes")
        return self._collect(lib.quorvel_register_uninstall, "register_uninstall", bytes(token),
                             len(token))

    def validate_and_track_purchase(
            self, product_id: str, price: str, currency: str, transaction_id: str,
            on_result: Optional[Callable[[bool, Dict[str, Any]], Any]] = None) -> bool:
        """Reports a store purchase; `on_result(succeeded, answer_dict)` is called once, on a
        library thread (never when the library is stopped: False)."""
        _callable(on_result, "on_result")
        purchase = _native.Purchase()
        lib.quorvel_purchase_init(ctypes.byref(purchase))
        keep = []
        for name, value in (("product_id", product_id), ("price", price),
                            ("currency", currency), ("transaction_id", transaction_id)):
            data, length = _utf8(value, name)
            keep.append(data)
            setattr(purchase, name, data)
            setattr(purchase, name + "_length", length)
        key = 0
        if on_result is not None:
            key = self._purchases.add(on_result)
            purchase.callback = self._purchases.c
            purchase.user_data = key
        taken = False
        try:
            taken = self._collect(lib.quorvel_validate_and_track_purchase,
                                  "validate_and_track_purchase", ctypes.byref(purchase))
        finally:
            if not taken:
                self._purchases.drop(key)
        return taken

    # --- Attribution callbacks ---------------------------------------------------------------

    def set_callbacks(self, on_conversion_data: Optional[Callable[[Dict[str, Any]], Any]] = None,
                      on_conversion_data_failure: Optional[Callable[[int, str], Any]] = None,
                      on_app_open_attribution: Optional[Callable[[Dict[str, Any]], Any]] = None
                      ) -> None:
        """Callables for the attribution answers (None leaves one out). They run on the
        library's threads: `on_conversion_data(dict)`, `on_conversion_data_failure(code,
        message)`, `on_app_open_attribution(dict)`."""
        _callable(on_conversion_data, "on_conversion_data")
        _callable(on_conversion_data_failure, "on_conversion_data_failure")
        _callable(on_app_open_attribution, "on_app_open_attribution")
        self._callbacks.current = (on_conversion_data, on_conversion_data_failure,
                                   on_app_open_attribution)
        # The same C functions each time: the call only waits for those under way with the
        # callables set before (but for the one that may be making this call).
        self._call(lib.quorvel_set_callbacks, "set_callbacks", ctypes.byref(self._callbacks.c))

    def get_conversion_data(self) -> bool:
        return self._collect(lib.quorvel_get_conversion_data, "get_conversion_data")

    # --- Delivery and consent ----------------------------------------------------------------

    def flush(self, timeout: float = 5.0) -> None:
        """Waits at most `timeout` seconds until every report so far is delivered. Raises
        QuorvelError when some were still on their way (status 5) or could not be sent
        (status 4: they stay on disk). Ctrl-C interrupts it."""
        deadline = time.monotonic() + _seconds(timeout, "timeout")
        while True:
            remaining = max(0.0, deadline - time.monotonic())
            # Short slices: the library is left between them, so a signal reaches Python.
            step = min(remaining, _FLUSH_SLICE)
            with self._handle.use() as handle:
                status = lib.quorvel_flush(handle, int(step * 1000))
            if status != _native.TIMED_OUT or remaining <= _FLUSH_SLICE:
                break
        self._check(status, "flush")

    def delivery_stats(self) -> DeliveryStats:
        stats = _native.DeliveryStats()
        stats.struct_size = ctypes.sizeof(stats)
        self._call(lib.quorvel_get_delivery_stats, "delivery_stats", ctypes.byref(stats))
        values = {name: getattr(stats, name) for name, _ in stats._fields_
                  if name != "struct_size"}
        values["data_directory_held_elsewhere"] = bool(values["data_directory_held_elsewhere"])
        return DeliveryStats(**values)

    @property
    def stopped(self) -> bool:
        with self._handle.use() as handle:
            state = lib.quorvel_is_stopped(handle)
        if state < 0:  # the state could not be read: neither answer would be true
            raise QuorvelError(FAILED, "stopped")
        return state == 1

    @stopped.setter
    def stopped(self, value: bool) -> None:
        self._call(lib.quorvel_set_stopped, "stopped", 1 if value else 0)

    def forget_this_install(self) -> None:
        self._call(lib.quorvel_forget_this_install, "forget_this_install")
