"""Pelora analytics for Python: a thin layer over libpelora's C API (ctypes, no compiler needed).

    import pelora

    with pelora.Client("WRITE_KEY", flush_at=10) as client:
        client.identify("user-1", {"plan": "pro"})
        client.track("Order Completed", {"total": Decimal("129.95"), "items": 2})
    # leaving the block shuts the client down, which delivers what was recorded

Properties are dicts of str keys to dict, list, tuple, int, float, decimal.Decimal, bool, None or
str. Decimals and ints keep their exact digits (up to 38 significant digits); floats are sent with
the shortest digits that read back as the same float. A Client may be used from several threads.
Where libpelora is looked for: see pelora._library (set PELORA_LIBRARY to override).
"""

import atexit
import ctypes
import decimal
import json
import threading
import uuid

from . import _library

__all__ = [
    "Client", "PeloraError", "InvalidArgumentError", "InvalidJSONError", "ShutDownError",
    "version", "set_debug_logs", "set_log_handler", "LibraryNotFound",
]

LibraryNotFound = _library.LibraryNotFound
_lib = _library.load()

_OK, _INVALID_ARGUMENT, _INVALID_JSON, _SHUT_DOWN, _TIMEOUT, _OUT_OF_MEMORY = range(6)


class PeloraError(Exception):
    """A call into libpelora failed; `status` is the C status code, str(error) its message."""

    def __init__(self, message, status):
        super().__init__(message)
        self.status = status


class InvalidArgumentError(PeloraError, ValueError):
    """An argument was refused (not UTF-8, empty where an id is needed, a negative timeout)."""


class InvalidJSONError(PeloraError, ValueError):
    """Properties or traits could not be sent as JSON (a type JSON has not, a malformed value, a
    number beyond 38 digits, nesting too deep)."""


class ShutDownError(PeloraError):
    """The client was shut down; nothing was recorded."""


_ERRORS = {_INVALID_ARGUMENT: InvalidArgumentError, _INVALID_JSON: InvalidJSONError,
           _SHUT_DOWN: ShutDownError}


def _check(status):
    if status == _OK:
        return
    message = (_lib.pelora_last_error() or b"").decode("utf-8", "replace")
    if status == _OUT_OF_MEMORY:
        raise MemoryError(message)
    raise _ERRORS.get(status, PeloraError)(message, status)


def _text(value, what):
    if not isinstance(value, str):
        raise InvalidArgumentError("%s must be a str, not %s" % (what, type(value).__name__),
                                   _INVALID_ARGUMENT)
    try:
        return value.encode("utf-8")
    except UnicodeEncodeError as error:  # lone surrogates
        raise InvalidArgumentError("%s is not valid UTF-8: %s" % (what, error),
                                   _INVALID_ARGUMENT) from None


# Stands in for a Decimal's digits while json writes the text; random, so no real string matches.
_DECIMAL_MARKER = "\x00pelora-decimal-%s-" % uuid.uuid4().hex
_QUOTED_MARKER = json.dumps(_DECIMAL_MARKER)[:-1]  # as it appears in JSON text, no end quote


def _json_text(value, what):
    """JSON text for `value`, with Decimals written as their own digits (json cannot)."""
    marker = _DECIMAL_MARKER
    decimals = []

    def number(item):
        if not isinstance(item, decimal.Decimal):
            raise TypeError("Object of type %s is not JSON serializable" % type(item).__name__)
        if not item.is_finite():
            raise ValueError("%s is not a JSON number" % item)
        decimals.append(str(item))
        return "%s%d" % (marker, len(decimals) - 1)

    try:
        text = json.dumps(value, ensure_ascii=False, allow_nan=False, default=number)
    except (TypeError, ValueError) as error:
        raise InvalidJSONError("%s: %s" % (what, error), _INVALID_JSON) from None
    except RecursionError:
        raise InvalidJSONError("%s nests too deeply" % what, _INVALID_JSON) from None
    for index, digits in enumerate(decimals):
        text = text.replace('%s%d"' % (_QUOTED_MARKER, index), digits, 1)
    return _text(text, what)


def _object_text(value, what):
    if value is None:
        return None
    if not isinstance(value, dict):
        raise InvalidJSONError("%s must be a dict, not %s" % (what, type(value).__name__),
                               _INVALID_JSON)
    return _json_text(value, what)


def _take_string(pointer):
    """A string the library returned, freed once read."""
    if not pointer.value:
        return None
    try:
        return ctypes.string_at(pointer.value).decode("utf-8")
    finally:
        _lib.pelora_free(pointer.value)


def version():
    """The library's version, as libpelora reports it."""
    return _lib.pelora_version().decode()


__version__ = version()


def set_debug_logs(enabled):
    """Start-up progress and plugin logs on or off (off by default)."""
    _lib.pelora_set_debug_logs(1 if enabled else 0)


_handler_lock = threading.Lock()
_handler = None  # the ctypes callback must live as long as the library may call it


def set_log_handler(handler):
    """Sends every line the library prints to handler(level, message) instead of standard output;
    level is 0 error, 1 warning, 2 info, 3 debug. It runs on library threads too. None restores
    standard output."""
    global _handler
    with _handler_lock:
        if handler is None:
            _lib.pelora_set_log_handler(_library.LOG_HANDLER(), None)
            _handler = None
            return

        def forward(level, message, _user_data):
            try:
                handler(level, message.decode("utf-8", "replace"))
            except Exception:  # an exception cannot cross into C
                pass

        callback = _library.LOG_HANDLER(forward)
        _lib.pelora_set_log_handler(callback, None)
        _handler = callback


@atexit.register
def _forget_log_handler():
    # Library threads may still print while the interpreter goes; they must not call into it.
    if _handler is not None:
        _lib.pelora_set_log_handler(_library.LOG_HANDLER(), None)


class Client:
    """One Pelora client: create it once per write key and keep it.

    Options (keywords): flavor ("dev", "stg", else production), flush_at, flush_interval
    (seconds), track_application_lifecycle_events, track_deeplinks, auto_add_pelora_destination,
    enable_iam, api_host (kept for compatibility, like the two track_ switches: no effect here),
    push_app_id, default_settings (dict), documents_dir and preferences_dir
    (both or neither), connect_to (list of "HOST:PORT:TO-HOST:TO-PORT"), ca_bundle (file),
    iam_retry_delay (seconds), max_stored_bytes (the disk bound; 64 MiB, 0 for none),
    max_batch_age (seconds; none by default), require_consent (record, but send nothing until
    grant_consent()), compress_batches (gzip uploads), proxy ("http://host:port"; by default the
    environment's https_proxy and no_proxy apply), sync_window (seconds within which recorded
    events are synced to disk; 0.1), sync_every_event (each track call waits for its own sync),
    shutdown_timeout (seconds the with-block waits on exit; 10).
    """

    def __init__(self, write_key, *, flavor=None, flush_at=None, flush_interval=None,
                 track_application_lifecycle_events=None, track_deeplinks=None,
                 auto_add_pelora_destination=None, enable_iam=None, api_host=None,
                 push_app_id=None, default_settings=None, documents_dir=None,
                 preferences_dir=None, connect_to=(), ca_bundle=None, iam_retry_delay=None,
                 max_stored_bytes=None, max_batch_age=None, require_consent=None,
                 compress_batches=None, proxy=None, sync_window=None, sync_every_event=None,
                 shutdown_timeout=10.0):
        self._handle = None
        self.shutdown_timeout = shutdown_timeout
        config = ctypes.c_void_p()
        _check(_lib.pelora_config_new(_text(write_key, "write_key"),
                                      None if flavor is None else _text(flavor, "flavor"),
                                      ctypes.byref(config)))
        try:
            self._configure(config, locals())
            handle = ctypes.c_void_p()
            _check(_lib.pelora_client_new(config, ctypes.byref(handle)))
            self._handle = handle
        finally:
            _lib.pelora_config_free(config)

    @staticmethod
    def _configure(config, options):
        switches = {
            "track_application_lifecycle_events":
                _lib.pelora_config_set_track_application_lifecycle_events,
            "track_deeplinks": _lib.pelora_config_set_track_deeplinks,
            "auto_add_pelora_destination": _lib.pelora_config_set_auto_add_pelora_destination,
            "enable_iam": _lib.pelora_config_set_enable_iam,
            "require_consent": _lib.pelora_config_set_require_consent,
            "compress_batches": _lib.pelora_config_set_compress_batches,
            "sync_every_event": _lib.pelora_config_set_sync_every_event,
        }
        for name, setter in switches.items():
            if options[name] is not None:
                _check(setter(config, 1 if options[name] else 0))
        if options["flush_at"] is not None:
            _check(_lib.pelora_config_set_flush_at(config, int(options["flush_at"])))
        if options["flush_interval"] is not None:
            _check(_lib.pelora_config_set_flush_interval(config, float(options["flush_interval"])))
        if options["max_stored_bytes"] is not None:
            _check(_lib.pelora_config_set_max_stored_bytes(config,
                                                           int(options["max_stored_bytes"])))
        if options["max_batch_age"] is not None:
            _check(_lib.pelora_config_set_max_batch_age(config, float(options["max_batch_age"])))
        if options["sync_window"] is not None:
            _check(_lib.pelora_config_set_sync_window(config, float(options["sync_window"])))
        if options["iam_retry_delay"] is not None:
            _check(_lib.pelora_config_set_iam_retry_delay(config,
                                                          float(options["iam_retry_delay"])))
        texts = {"api_host": _lib.pelora_config_set_api_host,
                 "push_app_id": _lib.pelora_config_set_push_app_id,
                 "ca_bundle": _lib.pelora_config_set_ca_bundle,
                 "proxy": _lib.pelora_config_set_proxy}
        for name, setter in texts.items():
            if options[name] is not None:
                _check(setter(config, _text(options[name], name)))
        if options["default_settings"] is not None:
            _check(_lib.pelora_config_set_default_settings(
                config, _object_text(options["default_settings"], "default_settings")))
        documents, preferences = options["documents_dir"], options["preferences_dir"]
        if (documents is None) != (preferences is None):
            raise InvalidArgumentError("give documents_dir and preferences_dir together",
                                       _INVALID_ARGUMENT)
        if documents is not None:
            _check(_lib.pelora_config_set_paths(config, _text(str(documents), "documents_dir"),
                                                _text(str(preferences), "preferences_dir")))
        entries = options["connect_to"]
        for entry in [entries] if isinstance(entries, str) else entries:
            _check(_lib.pelora_config_add_connect_to(config, _text(entry, "connect_to")))

    def _client(self):
        if self._handle is None:
            raise ShutDownError("the client was closed", _SHUT_DOWN)
        return self._handle

    def track(self, name, properties=None):
        """Records a named event; returns once it is on disk."""
        _check(_lib.pelora_track_bash(self._client(), _text(name, "name"),
                                      _object_text(properties, "properties")))

    def track_event(self, identity, event_name, event_data, profile=None):
        """Records an identity-tracking event, sent at once (dicts; profile a list of dicts)."""
        if profile is not None and not isinstance(profile, (list, tuple)):
            raise InvalidJSONError("profile must be a list of dicts", _INVALID_JSON)
        _check(_lib.pelora_track_event(
            self._client(), _object_text(identity, "identity") or b"{}",
            _text(event_name, "event_name"), _object_text(event_data, "event_data") or b"{}",
            None if profile is None else _json_text(list(profile), "profile")))

    def identify(self, user_id, traits=None):
        """Sets who the user is; traits (a dict) replace the stored ones, None keeps them."""
        _check(_lib.pelora_identify(self._client(), _text(user_id, "user_id"),
                                    _object_text(traits, "traits")))

    def reset(self):
        """Forgets the user: a new anonymous id, no user id or traits."""
        _check(_lib.pelora_reset(self._client()))

    def flush(self, timeout=None):
        """Uploads what is stored. With a timeout (seconds), waits and returns True when
        everything was delivered in time, False when not (what is left stays on disk)."""
        if timeout is None:
            _check(_lib.pelora_flush(self._client()))
            return None
        status = _lib.pelora_flush_wait(self._client(), float(timeout))
        if status == _TIMEOUT:
            return False
        _check(status)
        return True

    def shutdown(self, timeout=10.0):
        """Delivers what it can within `timeout` seconds, then stops the client's timers and
        threads. True when everything was delivered and the threads ended. Later calls record
        nothing (ShutDownError); a second shutdown returns the first one's result."""
        status = _lib.pelora_shutdown(self._client(), float(timeout))
        if status == _TIMEOUT:
            return False
        _check(status)
        return True

    def close(self):
        """Releases the client (shutting it down without waiting if that has not happened)."""
        handle, self._handle = self._handle, None
        if handle is not None:
            _lib.pelora_client_free(handle)

    @property
    def anonymous_id(self):
        out = ctypes.c_void_p()
        _check(_lib.pelora_anonymous_id(self._client(), ctypes.byref(out)))
        return _take_string(out)

    @property
    def user_id(self):
        out = ctypes.c_void_p()
        _check(_lib.pelora_user_id(self._client(), ctypes.byref(out)))
        return _take_string(out)

    @property
    def traits(self):
        """The stored traits as a dict (numbers as Decimal, exact), or None."""
        out = ctypes.c_void_p()
        _check(_lib.pelora_traits(self._client(), ctypes.byref(out)))
        text = _take_string(out)
        return None if text is None else json.loads(text, parse_float=decimal.Decimal)

    @property
    def has_unsent_events(self):
        return bool(_lib.pelora_has_unsent_events(self._client()))

    def dropped_event_count(self):
        """Events the disk bound deleted undelivered since the client was created."""
        return int(_lib.pelora_dropped_event_count(self._client()))

    def opt_out(self):
        """Records and sends nothing from now on and deletes what is stored; kept across
        restarts. When it returns, no upload of this client is still running."""
        _check(_lib.pelora_opt_out(self._client()))

    def opt_in(self):
        """Records and sends again."""
        _check(_lib.pelora_opt_in(self._client()))

    @property
    def is_opted_out(self):
        return bool(_lib.pelora_is_opted_out(self._client()))

    def grant_consent(self):
        """With require_consent: lets what is stored, and what follows, leave the device."""
        _check(_lib.pelora_grant_consent(self._client()))

    def revoke_consent(self):
        """Stops sending again and deletes what is stored."""
        _check(_lib.pelora_revoke_consent(self._client()))

    @property
    def has_consent(self):
        return bool(_lib.pelora_has_consent(self._client()))

    def __enter__(self):
        return self

    def __exit__(self, *exc_info):
        try:
            if self._handle is not None:
                self.shutdown(self.shutdown_timeout)
        finally:
            self.close()
        return False

    def __del__(self):
        if getattr(self, "_handle", None) is not None:
            self.close()
