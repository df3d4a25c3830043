"""A whole session from Python against quorvel-devserver, and misuse raising Python errors."""

import http.client
import json
import logging
import socket
import ssl
import threading
from urllib.parse import unquote

import pytest

import quorvel

from conftest import APP_ID, DEV_KEY


def test_a_whole_session_from_python_arrives(devserver, tmp_path):
    conversions = []
    arrived = threading.Event()

    def on_conversion_data(data):
        assert threading.current_thread() is not threading.main_thread()
        conversions.append(data)
        arrived.set()

    with quorvel.Tracker(tmp_path / "app", keychain_directory=tmp_path / "keychain",
                         service_domain=devserver["domain"], extra_ca_file=devserver["ca_file"],
                         dev_key=DEV_KEY, app_id=APP_ID) as tracker:
        tracker.set_callbacks(on_conversion_data=on_conversion_data)
        tracker.track_app_launch()
        tracker.track_event("level_up", {"level": 3, "name": "castle"})
        tracker.track_event("purchase_made", "9.99")
        tracker.flush(30)
        assert arrived.wait(30)
        stats = tracker.delivery_stats()
        assert stats.accepted >= 3 and stats.delivered == stats.accepted and stats.waiting == 0
        assert stats.refused == stats.retrying == stats.not_kept == 0
        uid = tracker.uid

    assert conversions and conversions[0].get("campaign") == "spring"
    reports = [r["decrypted"] for r in devserver["received"]() if r.get("decrypted")]
    events = sorted(r.get("event") for r in reports if r.get("uid") == uid)
    assert events.count("Launched") >= 1
    assert "level_up" in events and "purchase_made" in events
    level = next(r for r in reports if r.get("event") == "level_up")
    # The service receives the values percent-escaped, as every host's do.
    assert json.loads(unquote(level["eventvalue"])) == {"level": 3, "name": "castle"}


class _LoopbackHTTPS(http.client.HTTPSConnection):
    """HTTPS to the emulator on loopback, with the service's host name for TLS."""

    def connect(self):
        sock = socket.create_connection(("127.0.0.1", self.port), self.timeout)
        self.sock = self._context.wrap_socket(sock, server_hostname=self.host)


def test_a_session_through_a_python_transport(devserver, tmp_path):
    context = ssl.create_default_context(cafile=devserver["ca_file"])

    def transport(request):
        parts = request.url.split("/", 3)  # https: '' host[:port] path
        host, _, port = parts[2].partition(":")
        connection = _LoopbackHTTPS(host, int(port or 443), timeout=request.timeout,
                                    context=context)
        try:
            connection.request(request.method, "/" + parts[3], body=request.body or None,
                               headers=dict(request.headers))
            answer = connection.getresponse()
            return quorvel.Response(answer.status, answer.getheaders(), answer.read())
        finally:
            connection.close()

    with quorvel.Tracker(tmp_path / "app", keychain_directory=tmp_path / "keychain",
                         service_domain=devserver["domain"], dev_key=DEV_KEY, app_id=APP_ID,
                         transport=transport) as tracker:
        tracker.track_app_launch()
        tracker.track_event("through_python", "1")
        tracker.flush(30)
        assert tracker.delivery_stats().waiting == 0

    # Only this transport, with the emulator's CA, can have brought it there.
    assert any("through_python" in str(r.get("decrypted")) for r in devserver["received"]())


def test_misuse_raises_python_errors(tmp_path):
    tracker = quorvel.Tracker(tmp_path / "app", keychain_directory=tmp_path / "keychain")
    with pytest.raises(TypeError):
        tracker.track_event(42)
    with pytest.raises(TypeError):
        tracker.track_event("level_up", 3)
    # Numbers past what the C call takes raise, instead of wrapping into another value.
    for out_of_range in (lambda: tracker.flush(-1),
                         lambda: tracker.set_outbox_limits(1 << 20, 2**64 + 1),
                         lambda: tracker.set_outbox_limits(2**64 + 5, 3600),
                         lambda: tracker.set_min_time_between_sessions(2**64),
                         lambda: quorvel.Response(2**32 + 200)):
        with pytest.raises(ValueError):
            out_of_range()
    tracker.close()
    tracker.close()  # idempotent
    with pytest.raises(quorvel.QuorvelError):
        tracker.track_app_launch()
    assert quorvel.version().startswith("4.")


def test_opting_in_after_a_kept_stop_delivers(devserver, tmp_path):
    # The host configures at every start, as hosts do; the stop of an earlier run is kept.
    options = dict(keychain_directory=tmp_path / "keychain", service_domain=devserver["domain"],
                   extra_ca_file=devserver["ca_file"], dev_key=DEV_KEY, app_id=APP_ID)
    with quorvel.Tracker(tmp_path / "app", **options) as tracker:
        tracker.stopped = True
        assert tracker.track_event("while_stopped", "1") is False  # dropped, and said so
        tracker.set_outbox_limits(1 << 20, 3600)  # configuration: taken
        with pytest.raises(quorvel.QuorvelError, match="stopped"):
            tracker.customer_user_id = "someone"  # about the user: not taken
        with pytest.raises(quorvel.QuorvelError, match="stopped"):
            tracker.uid
    with quorvel.Tracker(tmp_path / "app", **options) as tracker:
        assert tracker.stopped
        tracker.stopped = False
        assert tracker.track_event("after_consent", "1") is True
        tracker.flush(30)
        uid = tracker.uid
    events = [r["decrypted"].get("event") for r in devserver["received"]()
              if r.get("decrypted") and r["decrypted"].get("uid") == uid]
    assert "after_consent" in events


def test_engine_calls_and_the_library_log_reach_python(tmp_path, caplog):
    sent = []

    def answer_locally(request):
        sent.append(request.url)
        return quorvel.Response(200, [], b"{}")

    caplog.set_level(5, logger="quorvel")
    with quorvel.Tracker(tmp_path / "app", keychain_directory=tmp_path / "keychain",
                         dev_key=DEV_KEY, app_id=APP_ID, transport=answer_locally) as tracker:
        tracker.set_debug()
        tracker.set_custom_data({"tier": "gold"})
        tracker.set_device_tracking_disabled()
        tracker.set_use_receipt_sandbox()
        tracker.set_outbox_limits(1 << 20, 3600)
        tracker.handle_push_payload({"qv": {"link": "app://from-push"}})
        tracker.app_entered_foreground()
        tracker.flush(30)
        tracker.app_entered_background()
        tracker.flush(30)
        with pytest.raises(TypeError):
            tracker.set_custom_data([1])
        tracker.set_debug(False)

    assert any(url.startswith("https://stats.") for url in sent), sent
    lines = [(r.levelno, r.getMessage()) for r in caplog.records if r.name == "quorvel"]
    assert any(level == logging.DEBUG and "setCustomData = " in text and "gold" in text
               for level, text in lines), lines
    assert not any(text.startswith("[") for _, text in lines)
