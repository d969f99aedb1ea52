"""The Python package against the local collector: exact numbers arrive, bad input raises with the
C library's message and loses nothing else, and a script that exits through the with-block has
delivered everything."""

import os
import subprocess
import sys
import textwrap
from decimal import Decimal

import pytest

import pelora



def _project_version():
    """The version pyproject.toml gives the package."""
    import tomllib

    with open(os.path.join(os.path.dirname(__file__), "..", "pyproject.toml"), "rb") as f:
        return tomllib.load(f)["project"]["version"]

def test_events_arrive_with_their_exact_numbers_and_identity(collector, tmp_path):
    with pelora.Client("py-key", **collector.options(str(tmp_path))) as client:
        client.track("Priced", {
            "price": Decimal("129.950"),
            "big": Decimal("12345678901234567890.123456789"),
            "tiny": Decimal("1E-30"),
            "count": 10**30,
            "ratio": 0.1,
            "gift": True,
            "note": None,
            "name": "Phở \"bò\"",
            "nested": {"tags": ["a", 7, Decimal("-0.5")], "pair": (1, 2)},
        })
        assert client.user_id is None
        assert len(client.anonymous_id) == 36
        client.identify("user-7", {"plan": "pro", "seats": Decimal("3.50")})
        client.track("After identify")
        assert client.user_id == "user-7"
        assert client.traits == {"plan": "pro", "seats": Decimal("3.5")}
        client.track_event({"user": "u1"}, "Login", {"attempt": 2}, [{"name": "Ann"}])
        assert client.flush(timeout=20) is True
        assert not client.has_unsent_events

        before = client.anonymous_id
        client.reset()
        assert client.user_id is None and client.traits is None
        assert client.anonymous_id != before

    events = collector.events()
    assert [event["event"] for event in events] == ["Priced", "After identify"]
    properties = events[0]["properties"]
    assert properties["price"] == Decimal("129.95")
    assert properties["big"] == Decimal("12345678901234567890.123456789")
    assert properties["tiny"] == Decimal("1E-30")
    assert properties["count"] == 10**30
    assert properties["ratio"] == Decimal("0.1")
    assert properties["name"] == "Phở \"bò\""
    assert properties["nested"] == {"tags": ["a", 7, Decimal("-0.5")], "pair": [1, 2]}
    # The digits themselves, not only equal values.
    assert '"big":12345678901234567890.123456789' in collector.raw()
    assert events[1]["userId"] == "user-7"
    assert len(collector.lines("trackingEvent")) == 1


def nested(depth):
    value = []
    for _ in range(depth - 1):
        value = [value]
    return value


def test_bad_input_raises_with_the_c_message_and_loses_nothing(collector, tmp_path):
    client = pelora.Client("py-key", **collector.options(str(tmp_path)))
    client.track("Good", {"seq": 1})
    refused = [
        (pelora.InvalidJSONError, "not JSON serializable", lambda: client.track("x", {"s": {1}})),
        (pelora.InvalidJSONError, "not a JSON number",
         lambda: client.track("x", {"n": Decimal("NaN")})),
        (pelora.InvalidJSONError, "Out of range float", lambda: client.track("x", {"f": 1e400})),
        (pelora.InvalidJSONError, "38 digits", lambda: client.track("x", {"n": 10**40 + 1})),
        (pelora.InvalidJSONError, "must be a dict", lambda: client.track("x", [1])),
        (pelora.InvalidArgumentError, "name must be a str", lambda: client.track(7)),
        (pelora.InvalidArgumentError, "not valid UTF-8", lambda: client.track("bad \udc80")),
        (pelora.InvalidArgumentError, "user_id is empty", lambda: client.identify("")),
        (pelora.InvalidJSONError, "Nesting deeper than 509 levels",
         lambda: client.track("x", {"deep": nested(510)})),
        (pelora.InvalidArgumentError, "timeout must be 0 or more",
         lambda: client.flush(timeout=-1)),
    ]
    for error, message, call in refused:
        with pytest.raises(error, match=message):
            call()
    assert client.user_id is None, "a refused identify changed nothing"
    client.track("Good", {"seq": 2})
    assert client.flush(timeout=20)
    assert client.shutdown(10) is True
    with pytest.raises(pelora.ShutDownError, match="shut down"):
        client.track("Too late")
    client.close()
    with pytest.raises(pelora.ShutDownError):
        client.track("Closed")

    assert [event["properties"]["seq"] for event in collector.events()] == [1, 2]
    with pytest.raises(pelora.InvalidArgumentError, match="write_key is not valid UTF-8"):
        pelora.Client("\udc80")


def test_a_script_that_exits_through_the_with_block_delivered_everything(collector, tmp_path):
    options = collector.options(str(tmp_path))
    script = textwrap.dedent("""
        import sys
        import pelora
        options = eval(sys.argv[1])
        with pelora.Client("py-exit-key", **options) as client:
            for seq in range(200):
                client.track("Exit", {"seq": seq})
    """)
    package = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    env = dict(os.environ, PYTHONPATH=package)
    subprocess.run([sys.executable, "-c", script, repr(options)], env=env, check=True,
                   timeout=120)
    seqs = sorted(event["properties"]["seq"] for event in collector.events())
    assert seqs == list(range(200))


def test_the_log_handler_gets_the_library_lines(collector, tmp_path):
    lines = []
    pelora.set_log_handler(lambda level, message: lines.append((level, message)))
    try:
        options = collector.options(str(tmp_path))
        with pelora.Client("py-key", **options):
            pass
    finally:
        pelora.set_log_handler(None)
    assert any(level == 1 and "peloraAppPushID" in message for level, message in lines), lines
    # The package's own version is the library's: pyproject.toml must follow CMakeLists.txt.
    assert pelora.version() == pelora.__version__ == _project_version()


def test_a_missing_library_is_reported_with_where_it_was_looked_for(tmp_path):
    missing = str(tmp_path / "nowhere" / "libpelora.so")
    package = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    env = dict(os.environ, PYTHONPATH=package, PELORA_LIBRARY=missing)
    result = subprocess.run([sys.executable, "-c", "import pelora"], env=env,
                            capture_output=True, text=True)
    assert result.returncode != 0
    assert "libpelora not found" in result.stderr and missing in result.stderr


def test_offline_the_disk_bound_holds_and_counts_what_it_drops(collector, tmp_path):
    options = collector.options(str(tmp_path))
    collector.stop()  # connections are refused from here on
    options.update(flush_at=20, max_stored_bytes=32 * 1024, shutdown_timeout=5)
    with pelora.Client("py-bound-key", **options) as client:
        for seq in range(1500):
            client.track("Offline", {"seq": seq, "pad": "x" * 100})
        assert client.dropped_event_count() > 0
    stored = 0
    for root, _, files in os.walk(os.path.join(str(tmp_path), options["documents_dir"])):
        stored += sum(os.path.getsize(os.path.join(root, name)) for name in files
                      if not name.startswith("."))
    assert stored <= 32 * 1024


def test_opt_out_and_consent_last_across_restarts(collector, tmp_path):
    options = collector.options(str(tmp_path))
    options.update(require_consent=True, shutdown_timeout=1)
    with pelora.Client("py-consent-key", **options) as client:
        assert not client.has_consent
        client.track("Pending", {"seq": 1})
        assert client.flush(timeout=1) is False  # held back until consent
        client.grant_consent()
    with pelora.Client("py-consent-key", **options) as client:  # a restart keeps the consent
        assert client.has_consent
        assert client.flush(timeout=20) is True
        client.opt_out()
        client.track("Not recorded")
        assert not client.has_unsent_events
    with pelora.Client("py-consent-key", **options) as client:
        assert client.is_opted_out
        client.opt_in()
        assert not client.is_opted_out
        client.track("Back", {"seq": 2})
        assert client.flush(timeout=20) is True
    assert [event["properties"]["seq"] for event in collector.events()] == [1, 2]


class ConnectProxy:
    """A CONNECT-only proxy that sends every tunnel to one port on 127.0.0.1 and counts them by
    the host:port asked for."""

    def __init__(self, upstream_port):
        import socket
        import threading
        self.upstream_port = upstream_port
        self.tunnels = {}
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.url = "http://127.0.0.1:%d" % self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        import threading
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(client,), daemon=True).start()

    def _serve(self, client):
        import select
        import socket
        head = b""
        while b"\r\n\r\n" not in head:
            piece = client.recv(4096)
            if not piece:
                return client.close()
            head += piece
        target = head.split(b" ")[1].decode()
        self.tunnels[target] = self.tunnels.get(target, 0) + 1
        upstream = socket.create_connection(("127.0.0.1", self.upstream_port))
        client.sendall(b"HTTP/1.1 200 Connection established\r\n\r\n")
        upstream.sendall(head.split(b"\r\n\r\n", 1)[1])
        while True:
            readable, _, _ = select.select([client, upstream], [], [])
            for side in readable:
                data = side.recv(65536)
                if not data:
                    client.close()
                    upstream.close()
                    return
                (upstream if side is client else client).sendall(data)

    def close(self):
        self.listener.close()


def test_compressed_uploads_through_a_proxy_arrive(collector, tmp_path):
    options = collector.options(str(tmp_path))
    host, _, _, port = collector.connect_to.split(":")
    proxy = ConnectProxy(int(port))
    del options["connect_to"]  # only the proxy knows where the service is
    options.update(proxy=proxy.url, compress_batches=True)
    with pytest.raises(pelora.InvalidArgumentError, match="proxy"):
        pelora.Client("py-proxy-key", **dict(options, proxy="not a proxy"))
    with pelora.Client("py-proxy-key", **options) as client:
        for seq in range(30):
            client.track("Proxied", {"seq": seq, "category": "Shoes / Running"})
        assert client.flush(timeout=20) is True
    proxy.close()
    assert proxy.tunnels.get(host + ":443", 0) >= 1
    assert [event["properties"]["seq"] for event in collector.events()] == list(range(30))
