"""Finds and loads libpelora (the C API, <pelora/pelora.h>) and declares its functions.

Where it looks, first match wins:
  1. $PELORA_LIBRARY: the library file itself, or a directory that holds it.
  2. An installed prefix: $PELORA_PREFIX/lib, this Python's prefix, /usr/local and /usr (with
     their multiarch lib directories), then the dynamic linker's cache (ldconfig).
  3. A build tree, when this package is used from a checkout: <checkout>/build/*/pelora/.
"""

import ctypes
import ctypes.util
import glob
import os
import sys
import sysconfig

SONAME = "libpelora.so.1"


class LibraryNotFound(OSError):
    """libpelora could not be found or loaded."""


def _candidates_in(directory):
    return [os.path.join(directory, name) for name in (SONAME, "libpelora.so")]


def _prefix_directories():
    prefixes = []
    if os.environ.get("PELORA_PREFIX"):
        prefixes.append(os.environ["PELORA_PREFIX"])
    prefixes += [sys.prefix, "/usr/local", "/usr"]
    multiarch = sysconfig.get_config_var("MULTIARCH") or ""
    directories = []
    for prefix in prefixes:
        for lib in ("lib", "lib64", os.path.join("lib", multiarch) if multiarch else None):
            if lib:
                directories.append(os.path.join(prefix, lib))
    return directories


def _build_tree_candidates():
    # python/pelora/_library.py -> the checkout is two levels up. Release-like builds first: the
    # sanitizer builds need their runtime preloaded.
    checkout = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    found = glob.glob(os.path.join(checkout, "build", "*", "pelora", "libpelora.so"))
    sanitized = ("test", "tsan", "fuzz")
    return sorted(found, key=lambda path: os.path.basename(os.path.dirname(os.path.dirname(path)))
                  in sanitized)


def candidates():
    """Every path tried, in order."""
    override = os.environ.get("PELORA_LIBRARY")
    if override:
        return _candidates_in(override) if os.path.isdir(override) else [override]
    paths = []
    for directory in _prefix_directories():
        paths += _candidates_in(directory)
    cached = ctypes.util.find_library("pelora")
    if cached:
        paths.append(cached)
    return paths + _build_tree_candidates()


def load():
    tried = []
    for path in candidates():
        if os.sep in path and not os.path.exists(path):
            tried.append(path + " (not there)")
            continue
        try:
            return _declare(ctypes.CDLL(path))
        except OSError as error:
            tried.append("%s (%s)" % (path, error))
    raise LibraryNotFound(
        "libpelora not found; install it (cmake --install) or set PELORA_LIBRARY to the file. "
        "Tried: " + "; ".join(tried))


LOG_HANDLER = ctypes.CFUNCTYPE(None, ctypes.c_int, ctypes.c_char_p, ctypes.c_void_p)


def _declare(lib):
    c_char_p, c_int, c_double, c_int64, c_void_p = (
        ctypes.c_char_p, ctypes.c_int, ctypes.c_double, ctypes.c_int64, ctypes.c_void_p)
    out_string = ctypes.POINTER(ctypes.c_void_p)  # char**, freed with pelora_free
    status = c_int
    signatures = {
        "pelora_version": (c_char_p, []),
        "pelora_last_error": (c_char_p, []),
        "pelora_free": (None, [c_void_p]),
        "pelora_set_debug_logs": (None, [c_int]),
        "pelora_debug_logs_enabled": (c_int, []),
        "pelora_set_log_handler": (None, [LOG_HANDLER, c_void_p]),
        "pelora_config_new": (status, [c_char_p, c_char_p, ctypes.POINTER(c_void_p)]),
        "pelora_config_free": (None, [c_void_p]),
        "pelora_config_set_flush_at": (status, [c_void_p, c_int64]),
        "pelora_config_set_flush_interval": (status, [c_void_p, c_double]),
        "pelora_config_set_track_application_lifecycle_events": (status, [c_void_p, c_int]),
        "pelora_config_set_track_deeplinks": (status, [c_void_p, c_int]),
        "pelora_config_set_auto_add_pelora_destination": (status, [c_void_p, c_int]),
        "pelora_config_set_enable_iam": (status, [c_void_p, c_int]),
        "pelora_config_set_api_host": (status, [c_void_p, c_char_p]),
        "pelora_config_set_push_app_id": (status, [c_void_p, c_char_p]),
        "pelora_config_set_default_settings": (status, [c_void_p, c_char_p]),
        "pelora_config_set_paths": (status, [c_void_p, c_char_p, c_char_p]),
        "pelora_config_add_connect_to": (status, [c_void_p, c_char_p]),
        "pelora_config_set_ca_bundle": (status, [c_void_p, c_char_p]),
        "pelora_config_set_iam_retry_delay": (status, [c_void_p, c_double]),
        "pelora_config_set_max_stored_bytes": (status, [c_void_p, ctypes.c_uint64]),
        "pelora_config_set_max_batch_age": (status, [c_void_p, c_double]),
        "pelora_config_set_require_consent": (status, [c_void_p, c_int]),
        "pelora_config_set_compress_batches": (status, [c_void_p, c_int]),
        "pelora_config_set_sync_window": (status, [c_void_p, c_double]),
        "pelora_config_set_sync_every_event": (status, [c_void_p, c_int]),
        "pelora_config_set_proxy": (status, [c_void_p, c_char_p]),
        "pelora_client_new": (status, [c_void_p, ctypes.POINTER(c_void_p)]),
        "pelora_client_free": (None, [c_void_p]),
        "pelora_track_bash": (status, [c_void_p, c_char_p, c_char_p]),
        "pelora_track_event": (status, [c_void_p, c_char_p, c_char_p, c_char_p, c_char_p]),
        "pelora_anonymous_id": (status, [c_void_p, out_string]),
        "pelora_user_id": (status, [c_void_p, out_string]),
        "pelora_traits": (status, [c_void_p, out_string]),
        "pelora_identify": (status, [c_void_p, c_char_p, c_char_p]),
        "pelora_reset": (status, [c_void_p]),
        "pelora_flush": (status, [c_void_p]),
        "pelora_flush_wait": (status, [c_void_p, c_double]),
        "pelora_shutdown": (status, [c_void_p, c_double]),
        "pelora_has_unsent_events": (c_int, [c_void_p]),
        "pelora_dropped_event_count": (ctypes.c_uint64, [c_void_p]),
        "pelora_opt_out": (status, [c_void_p]),
        "pelora_opt_in": (status, [c_void_p]),
        "pelora_is_opted_out": (c_int, [c_void_p]),
        "pelora_grant_consent": (status, [c_void_p]),
        "pelora_revoke_consent": (status, [c_void_p]),
        "pelora_has_consent": (c_int, [c_void_p]),
    }
    for name, (restype, argtypes) in signatures.items():
        function = getattr(lib, name)
        function.restype = restype
        function.argtypes = argtypes
    return lib
