"""Finding libquorvel and declaring its C API for ctypes."""

import ctypes
import ctypes.util
import os
from pathlib import Path

C_API_VERSION = 1005  # QUORVEL_C_API_VERSION of the header these declarations follow

OK = 0
BUFFER_TOO_SMALL = 2
TIMED_OUT = 5
STOPPED = 6


class TransportRequest(ctypes.Structure):
    _fields_ = [
        ("struct_size", ctypes.c_size_t),
        ("method", ctypes.c_void_p),
        ("method_length", ctypes.c_size_t),
        ("url", ctypes.c_void_p),
        ("url_length", ctypes.c_size_t),
        ("headers", ctypes.c_void_p),
        ("headers_length", ctypes.c_size_t),
        ("body", ctypes.c_void_p),
        ("body_length", ctypes.c_size_t),
        ("timeout_ms", ctypes.c_uint32),
    ]


TRANSPORT_SEND = ctypes.CFUNCTYPE(
    None, ctypes.c_void_p, ctypes.POINTER(TransportRequest), ctypes.c_void_p
)


RELEASE_CALLBACK = ctypes.CFUNCTYPE(None, ctypes.c_void_p)


class Options(ctypes.Structure):
    _fields_ = [
        ("struct_size", ctypes.c_size_t),
        ("data_directory", ctypes.c_char_p),
        ("data_directory_length", ctypes.c_size_t),
        ("keychain_directory", ctypes.c_char_p),
        ("keychain_directory_length", ctypes.c_size_t),
        ("bundle_identifier", ctypes.c_char_p),
        ("bundle_identifier_length", ctypes.c_size_t),
        ("service_domain", ctypes.c_char_p),
        ("service_domain_length", ctypes.c_size_t),
        ("extra_ca_file", ctypes.c_char_p),
        ("extra_ca_file_length", ctypes.c_size_t),
        ("transport", TRANSPORT_SEND),
        ("transport_user_data", ctypes.c_void_p),
        ("transport_release", RELEASE_CALLBACK),
        ("receipt_path", ctypes.c_char_p),
        ("receipt_path_length", ctypes.c_size_t),
    ]


JSON_CALLBACK = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_size_t)
ERROR_CALLBACK = ctypes.CFUNCTYPE(
    None, ctypes.c_void_p, ctypes.c_int64, ctypes.c_void_p, ctypes.c_size_t
)
LOG_CALLBACK = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int, ctypes.c_void_p,
                                ctypes.c_size_t)
PURCHASE_CALLBACK = ctypes.CFUNCTYPE(
    None, ctypes.c_void_p, ctypes.c_int, ctypes.c_void_p, ctypes.c_size_t
)


class Callbacks(ctypes.Structure):
    _fields_ = [
        ("struct_size", ctypes.c_size_t),
        ("user_data", ctypes.c_void_p),
        ("on_conversion_data", JSON_CALLBACK),
        ("on_conversion_data_failure", ERROR_CALLBACK),
        ("on_app_open_attribution", JSON_CALLBACK),
    ]


class Purchase(ctypes.Structure):
    _fields_ = [
        ("struct_size", ctypes.c_size_t),
        ("product_id", ctypes.c_char_p),
        ("product_id_length", ctypes.c_size_t),
        ("price", ctypes.c_char_p),
        ("price_length", ctypes.c_size_t),
        ("currency", ctypes.c_char_p),
        ("currency_length", ctypes.c_size_t),
        ("transaction_id", ctypes.c_char_p),
        ("transaction_id_length", ctypes.c_size_t),
        ("callback", PURCHASE_CALLBACK),
        ("user_data", ctypes.c_void_p),
    ]


class DeliveryStats(ctypes.Structure):
    _fields_ = [
        ("struct_size", ctypes.c_size_t),
        ("accepted", ctypes.c_uint64),
        ("delivered", ctypes.c_uint64),
        ("waiting", ctypes.c_uint64),
        ("kept_as_files", ctypes.c_uint64),
        ("dropped_over_size", ctypes.c_uint64),
        ("dropped_over_age", ctypes.c_uint64),
        ("dropped_by_rule", ctypes.c_uint64),
        ("repeated", ctypes.c_uint64),
        ("data_directory_held_elsewhere", ctypes.c_int),
        ("refused", ctypes.c_uint64),
        ("retrying", ctypes.c_uint64),
        ("not_kept", ctypes.c_uint64),
        ("dropped_unreadable", ctypes.c_uint64),
    ]


def _candidates():
    given = os.environ.get("QUORVEL_LIBRARY")
    if given:
        yield given
        return
    found = ctypes.util.find_library("quorvel")
    if found:
        yield found
    # A checkout: the shared builds beside this package.
    root = Path(__file__).resolve().parents[3]
    for build in sorted(root.glob("build/*/src/libquorvel.so")):
        yield str(build)


def _load():
    tried = []
    for path in _candidates():
        try:
            return ctypes.CDLL(path)
        except OSError as error:
            tried.append(f"{path}: {error}")
    raise ImportError(
        "libquorvel.so not found; set QUORVEL_LIBRARY to its path"
        + ("" if not tried else " (tried " + "; ".join(tried) + ")")
    )


def _declare(lib):
    tracker = ctypes.c_void_p
    text = [ctypes.c_char_p, ctypes.c_size_t]
    signatures = {
        "quorvel_version": ([], ctypes.c_char_p),
        "quorvel_check_version": ([ctypes.c_int], ctypes.c_int),
        "quorvel_status_text": ([ctypes.c_int], ctypes.c_char_p),
        "quorvel_options_init_sized": ([ctypes.POINTER(Options), ctypes.c_size_t], None),
        "quorvel_tracker_create": (
            [ctypes.POINTER(Options), ctypes.POINTER(ctypes.c_void_p)],
            ctypes.c_int,
        ),
        "quorvel_tracker_destroy": ([tracker], None),
        "quorvel_set_dev_key": ([tracker] + text, ctypes.c_int),
        "quorvel_set_app_id": ([tracker] + text, ctypes.c_int),
        "quorvel_set_customer_user_id": ([tracker] + text, ctypes.c_int),
        "quorvel_set_currency_code": ([tracker] + text, ctypes.c_int),
        "quorvel_set_debug": ([tracker, ctypes.c_int], ctypes.c_int),
        "quorvel_set_min_time_between_sessions": ([tracker, ctypes.c_uint64], ctypes.c_int),
        "quorvel_set_device_tracking_disabled": ([tracker, ctypes.c_int], ctypes.c_int),
        "quorvel_set_use_receipt_sandbox": ([tracker, ctypes.c_int], ctypes.c_int),
        "quorvel_set_custom_data": ([tracker] + text, ctypes.c_int),
        "quorvel_set_outbox_limits": ([tracker, ctypes.c_uint64, ctypes.c_uint64], ctypes.c_int),
        "quorvel_set_log_callback": ([tracker, LOG_CALLBACK, ctypes.c_void_p], ctypes.c_int),
        "quorvel_app_entered_foreground": ([tracker], ctypes.c_int),
        "quorvel_app_entered_background": ([tracker], ctypes.c_int),
        "quorvel_handle_push_payload": ([tracker] + text, ctypes.c_int),
        "quorvel_get_uid": (
            [tracker, ctypes.c_char_p, ctypes.c_size_t, ctypes.POINTER(ctypes.c_size_t)],
            ctypes.c_int,
        ),
        "quorvel_track_app_launch": ([tracker], ctypes.c_int),
        "quorvel_track_event": ([tracker] + text + text, ctypes.c_int),
        "quorvel_track_event_with_values": ([tracker] + text + text, ctypes.c_int),
        "quorvel_handle_open_url": ([tracker] + text + text, ctypes.c_int),
        "quorvel_continue_web_link": ([tracker] + text, ctypes.c_int),
        "quorvel_purchase_init": ([ctypes.POINTER(Purchase)], None),
        "quorvel_validate_and_track_purchase": (
            [tracker, ctypes.POINTER(Purchase)],
            ctypes.c_int,
        ),
        "quorvel_register_uninstall": ([tracker, ctypes.c_char_p, ctypes.c_size_t], ctypes.c_int),
        "quorvel_callbacks_init": ([ctypes.POINTER(Callbacks)], None),
        "quorvel_set_callbacks": ([tracker, ctypes.POINTER(Callbacks)], ctypes.c_int),
        "quorvel_get_conversion_data": ([tracker], ctypes.c_int),
        "quorvel_flush": ([tracker, ctypes.c_uint32], ctypes.c_int),
        "quorvel_get_delivery_stats": ([tracker, ctypes.POINTER(DeliveryStats)], ctypes.c_int),
        "quorvel_set_stopped": ([tracker, ctypes.c_int], ctypes.c_int),
        "quorvel_is_stopped": ([tracker], ctypes.c_int),
        "quorvel_forget_this_install": ([tracker], ctypes.c_int),
        "quorvel_transport_respond": (
            [ctypes.c_void_p, ctypes.c_int, ctypes.c_char_p, ctypes.c_size_t, ctypes.c_char_p,
             ctypes.c_size_t],
            None,
        ),
        "quorvel_transport_take": ([ctypes.c_void_p], ctypes.c_int),
        "quorvel_transport_fail": (
            [ctypes.c_void_p, ctypes.c_int64, ctypes.c_char_p, ctypes.c_size_t],
            None,
        ),
    }
    for name, (arguments, result) in signatures.items():
        function = getattr(lib, name)
        function.argtypes = arguments
        function.restype = result
    return lib


lib = _declare(_load())
if lib.quorvel_check_version(C_API_VERSION) != OK:
    raise ImportError("libquorvel.so is older than these bindings")
