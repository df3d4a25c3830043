"""Install attribution and in-app analytics for Python hosts, over libquorvel's C API."""

import ctypes
import json
import sys
import threading
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field

from . import _native
from ._native import lib

__all__ = ["DeliveryStats", "QuorvelError", "Request", "Response", "Tracker", "version"]


class QuorvelError(Exception):
    """The library refused or could not do what was asked; `status` is its status code."""

    def __init__(self, status, what):
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


@dataclass(frozen=True)
class Request:
    """A request for a host's own transport."""
    method: str
    url: str
    headers: list  # (name, value) pairs
    body: bytes
    timeout: float  # seconds


@dataclass(frozen=True)
class Response:
    """What a host's transport returns: the service's answer, whatever its status."""
    status: int
    headers: list = field(default_factory=list)  # (name, value) pairs
    body: bytes = b""


def _header_pairs(text):
    pairs = []
    for line in text.split("\r\n"):
        name, colon, value = line.partition(":")
        if colon:
            pairs.append((name, value.lstrip()))
    return pairs


_LIVE_FOREVER = []


class _Transport:
    """Calls a Python transport on worker threads of its own, so that a slow request never
    holds a library thread, and answers the library through the reply handle."""

    def __init__(self, send, workers=4):
        self._send = send
        self._pool = ThreadPoolExecutor(max_workers=workers, thread_name_prefix="quorvel-http")
        self.c_function = _native.TRANSPORT_SEND(self._hand_over)
        # The library may still hand over a request while a tracker goes away: the function
        # it calls lives as long as the process.
        _LIVE_FOREVER.append(self.c_function)

    def _hand_over(self, _user_data, c_request, reply):
        r = c_request.contents
        request = Request(
            method=ctypes.string_at(r.method, r.method_length).decode(),
            url=ctypes.string_at(r.url, r.url_length).decode(),
            headers=_header_pairs(ctypes.string_at(r.headers, r.headers_length).decode()),
            body=ctypes.string_at(r.body, r.body_length) if r.body_length else b"",
            timeout=r.timeout_ms / 1000.0)
        self._pool.submit(self._answer, request, reply)

    def _answer(self, request, reply):
        try:
            response = self._send(request)
            headers = "".join(f"{name}: {value}\r\n" for name, value in response.headers)
            data = headers.encode()
            lib.quorvel_transport_respond(reply, int(response.status), data, len(data),
                                          bytes(response.body), len(response.body))
        except Exception as error:  # noqa: BLE001 - any failure is a transport failure
            message = str(error).encode()
            lib.quorvel_transport_fail(reply, -1004, message, len(message))

    def close(self):
        self._pool.shutdown(wait=True)


def version():
    """The library's version ("4.8.0")."""
    return lib.quorvel_version().decode()


def _utf8(value, name):
    if value is None:
        return None, 0
    if not isinstance(value, str):
        raise TypeError(f"{name} must be a str, not {type(value).__name__}")
    data = value.encode("utf-8")
    return data, len(data)


def _text(pointer, length):
    return ctypes.string_at(pointer, length).decode("utf-8", errors="replace")


def _call_safely(callback, *arguments):
    # A Python exception must never unwind into the library's threads.
    try:
        callback(*arguments)
    except Exception:  # noqa: BLE001 - printed, as an unhandled thread exception would be
        sys.excepthook(*sys.exc_info())


class Tracker:
    """One tracker on the POSIX platform. Use it as a context manager: leaving the block
    flushes (at most `flush_timeout` seconds) and releases it."""

    def __init__(self, data_directory=None, *, keychain_directory=None, bundle_identifier=None,
                 service_domain=None, extra_ca_file=None, dev_key=None, app_id=None,
                 transport=None, flush_timeout=5.0):
        options = _native.Options()
        lib.quorvel_options_init(ctypes.byref(options))
        # Kept referenced until the call returns: the library copies what it keeps.
        self._keep = []
        for field, value in (("data_directory", data_directory),
                             ("keychain_directory", keychain_directory),
                             ("bundle_identifier", bundle_identifier),
                             ("service_domain", service_domain),
                             ("extra_ca_file", extra_ca_file)):
            data, length = _utf8(None if value is None else str(value), field)
            self._keep.append(data)
            setattr(options, field, data)
            setattr(options, field + "_length", length)
        # A callable taking a Request and returning a Response (raising when no answer came),
        # used instead of the library's own HTTP client.
        self._transport = None if transport is None else _Transport(transport)
        if self._transport is not None:
            options.transport = self._transport.c_function
        handle = ctypes.c_void_p()
        self._check(lib.quorvel_tracker_create(ctypes.byref(options), ctypes.byref(handle)),
                    "creating the tracker")
        self._handle = handle
        self._lock = threading.Lock()
        self._flush_timeout = flush_timeout
        self._callbacks = {}
        self._purchases = set()  # C callbacks of purchases under way, kept alive
        self._c_callbacks = None
        if dev_key is not None:
            self.dev_key = dev_key
        if app_id is not None:
            self.app_id = app_id

    # --- Lifetime -----------------------------------------------------------------------

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        try:
            if self._handle is not None:
                self.flush(self._flush_timeout)
        except QuorvelError:
            pass  # what was not answered stays in the outbox for the next start
        finally:
            self.close()
        return False

    def close(self):
        """Releases the tracker; no callback runs once this returns. Idempotent."""
        with self._lock:
            handle, self._handle = self._handle, None
        if handle is not None:
            lib.quorvel_tracker_destroy(handle)
        if self._transport is not None:
            self._transport.close()

    def __del__(self):
        if getattr(self, "_handle", None) is not None:
            self.close()

    def _live(self):
        handle = self._handle
        if handle is None:
            raise QuorvelError(1, "the tracker is closed")
        return handle

    @staticmethod
    def _check(status, what):
        # A stopped library drops the call on purpose, as the C++ one does, without an error.
        if status not in (_native.OK, _native.STOPPED):
            raise QuorvelError(status, what)

    # --- Settings -------------------------------------------------------------------------

    def _set_text(self, function, value, name):
        data, length = _utf8(value, name)
        self._check(function(self._live(), data, length), f"setting {name}")

    dev_key = property(fset=lambda self, v: self._set_text(lib.quorvel_set_dev_key, v, "dev_key"))
    app_id = property(fset=lambda self, v: self._set_text(lib.quorvel_set_app_id, v, "app_id"))
    customer_user_id = property(
        fset=lambda self, v: self._set_text(lib.quorvel_set_customer_user_id, v,
                                            "customer_user_id"))
    currency_code = property(
        fset=lambda self, v: self._set_text(lib.quorvel_set_currency_code, v, "currency_code"))

    def set_debug(self, on=True):
        self._check(lib.quorvel_set_debug(self._live(), 1 if on else 0), "set_debug")

    def set_min_time_between_sessions(self, seconds):
        if seconds < 0:
            raise ValueError("seconds must not be negative")
        self._check(lib.quorvel_set_min_time_between_sessions(self._live(), int(seconds)),
                    "set_min_time_between_sessions")

    @property
    def uid(self):
        """The install's identifier."""
        size = ctypes.c_size_t(0)
        buffer = ctypes.create_string_buffer(64)
        status = lib.quorvel_get_uid(self._live(), buffer, len(buffer), ctypes.byref(size))
        if status == _native.BUFFER_TOO_SMALL:
            buffer = ctypes.create_string_buffer(size.value)
            status = lib.quorvel_get_uid(self._live(), buffer, len(buffer), ctypes.byref(size))
        self._check(status, "uid")
        return buffer.raw[: size.value].decode()

    # --- Reports ----------------------------------------------------------------------------

    def track_app_launch(self):
        self._check(lib.quorvel_track_app_launch(self._live()), "track_app_launch")

    def track_event(self, name, values=None):
        """An in-app event: `values` is None, a str (one value) or a dict (sent as JSON)."""
        event, event_length = _utf8(name, "name")
        if isinstance(values, dict):
            data, length = _utf8(json.dumps(values), "values")
            status = lib.quorvel_track_event_with_values(self._live(), event, event_length,
                                                         data, length)
        elif values is None or isinstance(values, str):
            data, length = _utf8(values, "value")
            status = lib.quorvel_track_event(self._live(), event, event_length, data, length)
        else:
            raise TypeError("values must be None, a str or a dict")
        self._check(status, f"track_event({name!r})")

    def handle_open_url(self, url, source_application=None):
        link, link_length = _utf8(url, "url")
        source, source_length = _utf8(source_application, "source_application")
        self._check(lib.quorvel_handle_open_url(self._live(), link, link_length, source,
                                                source_length), "handle_open_url")

    def continue_web_link(self, url):
        link, length = _utf8(url, "url")
        self._check(lib.quorvel_continue_web_link(self._live(), link, length),
                    "continue_web_link")

    def register_uninstall(self, token: bytes):
        if not isinstance(token, (bytes, bytearray)) or not token:
            raise TypeError("token must be non-empty bytes")
        self._check(lib.quorvel_register_uninstall(self._live(), bytes(token), len(token)),
                    "register_uninstall")

    def validate_and_track_purchase(self, product_id, price, currency, transaction_id,
                                    on_result=None):
        """Reports a store purchase; `on_result(succeeded, answer_dict)` is called once, on a
        library thread."""
        purchase = _native.Purchase()
        lib.quorvel_purchase_init(ctypes.byref(purchase))
        keep = []
        for field, value in (("product_id", product_id), ("price", price),
                             ("currency", currency), ("transaction_id", transaction_id)):
            data, length = _utf8(value, field)
            keep.append(data)
            setattr(purchase, field, data)
            setattr(purchase, field + "_length", length)
        if on_result is not None:
            def deliver(_user_data, succeeded, pointer, length):
                self._purchases.discard(c_callback)
                _call_safely(on_result, bool(succeeded), json.loads(_text(pointer, length)))
            c_callback = _native.PURCHASE_CALLBACK(deliver)
            self._purchases.add(c_callback)
            purchase.callback = c_callback
        self._check(lib.quorvel_validate_and_track_purchase(self._live(), ctypes.byref(purchase)),
                    "validate_and_track_purchase")

    # --- Attribution callbacks ---------------------------------------------------------------

    def set_callbacks(self, on_conversion_data=None, on_conversion_data_failure=None,
                      on_app_open_attribution=None):
        """Callables for the attribution answers (None leaves one out). They run on the
        library's threads: `on_conversion_data(dict)`, `on_conversion_data_failure(code,
        message)`, `on_app_open_attribution(dict)`."""
        def json_callback(function):
            if function is None:
                return _native.JSON_CALLBACK()
            return _native.JSON_CALLBACK(
                lambda _u, pointer, length: _call_safely(function,
                                                         json.loads(_text(pointer, length))))

        c = _native.Callbacks()
        lib.quorvel_callbacks_init(ctypes.byref(c))
        c.on_conversion_data = json_callback(on_conversion_data)
        c.on_app_open_attribution = json_callback(on_app_open_attribution)
        if on_conversion_data_failure is not None:
            c.on_conversion_data_failure = _native.ERROR_CALLBACK(
                lambda _u, code, pointer, length: _call_safely(on_conversion_data_failure, code,
                                                               _text(pointer, length)))
        self._check(lib.quorvel_set_callbacks(self._live(), ctypes.byref(c)), "set_callbacks")
        # The library no longer calls the old ones once the call returned: they may go now,
        # and the new ones live as long as the tracker holds them.
        self._c_callbacks = (c, c.on_conversion_data, c.on_conversion_data_failure,
                             c.on_app_open_attribution)

    def get_conversion_data(self):
        self._check(lib.quorvel_get_conversion_data(self._live()), "get_conversion_data")

    # --- Delivery and consent ----------------------------------------------------------------

    def flush(self, timeout=5.0):
        """Waits until every report so far is answered (or kept); QuorvelError on timeout."""
        if timeout < 0:
            raise ValueError("timeout must not be negative")
        self._check(lib.quorvel_flush(self._live(), int(timeout * 1000)), "flush")

    def delivery_stats(self):
        stats = _native.DeliveryStats()
        stats.struct_size = ctypes.sizeof(stats)
        self._check(lib.quorvel_get_delivery_stats(self._live(), ctypes.byref(stats)),
                    "delivery_stats")
        values = {name: getattr(stats, name) for name, _ in stats._fields_
                  if name != "struct_size"}
        values["data_directory_held_elsewhere"] = bool(values["data_directory_held_elsewhere"])
        return DeliveryStats(**values)

    @property
    def stopped(self):
        return lib.quorvel_is_stopped(self._live()) == 1

    @stopped.setter
    def stopped(self, value):
        self._check(lib.quorvel_set_stopped(self._live(), 1 if value else 0), "stopped")

    def forget_this_install(self):
        self._check(lib.quorvel_forget_this_install(self._live()), "forget_this_install")
