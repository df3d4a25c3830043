"""Lifetimes and misuse a host may inflict: threads racing close, the interpreter exiting with
trackers open, Ctrl-C in a flush, collection on a transport worker, wrong argument types."""

import os
import re
import signal
import subprocess
import sys
import textwrap
import threading
from pathlib import Path

import pytest

import quorvel

from conftest import APP_ID, DEV_KEY

README = Path(__file__).resolve().parents[1] / "README.md"


def run_python(code, tmp_path, **kwargs):
    """Runs `code` in a fresh interpreter, as a host program would run."""
    return subprocess.Popen([sys.executable, "-c", textwrap.dedent(code), str(tmp_path)],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **kwargs)


# A transport with no network behind it: every request fails at once, or after `delay`.
OFFLINE = """
import sys, threading, time
import quorvel
folder = sys.argv[1]
def offline(delay):
    def send(request):
        time.sleep(delay)
        raise ConnectionRefusedError("offline")
    return send
"""


def test_close_racing_eight_calling_threads_never_crashes(tmp_path):
    child = run_python(OFFLINE + """
    for round in range(10):
        tracker = quorvel.Tracker(f"{folder}/app", keychain_directory=f"{folder}/keys",
                                  dev_key="K", app_id="1", transport=offline(0))
        go = threading.Barrier(9)
        def call():
            go.wait()
            try:
                for i in range(100000):
                    tracker.track_event("race", str(i))
                    tracker.delivery_stats()
            except quorvel.QuorvelError:
                pass
        threads = [threading.Thread(target=call) for _ in range(8)]
        for thread in threads:
            thread.start()
        go.wait()
        tracker.close()
        for thread in threads:
            thread.join()
    print("done")
    """.replace("\n    ", "\n"), tmp_path)
    out, err = child.communicate(timeout=60)
    assert child.returncode == 0 and out.strip() == "done", err


def test_exit_with_open_trackers_on_a_hung_transport_is_clean(tmp_path):
    # Sends that outlast the test: the exit flushes for at most a second and goes, without
    # waiting for them (a hang catcher, not a timing).
    child = run_python(OFFLINE + """
    sending = threading.Event()
    def hung(request):
        sending.set()
        time.sleep(3600)
    trackers = [quorvel.Tracker(f"{folder}/app{i}", keychain_directory=f"{folder}/keys{i}",
                                dev_key="K", app_id="1", transport=hung)
                for i in range(2)]
    for tracker in trackers:
        tracker.track_app_launch()
        for i in range(20):
            tracker.track_event("before_exit", str(i))
    sending.wait(30)
    """.replace("\n    ", "\n"), tmp_path)
    try:
        _, err = child.communicate(timeout=30)
    finally:
        child.kill()
    assert child.returncode == 0, err


def test_a_forked_child_leaves_its_copy_of_a_tracker_alone(tmp_path):
    child = run_python(OFFLINE + """
    import os
    tracker = quorvel.Tracker(f"{folder}/app", keychain_directory=f"{folder}/keys",
                              dev_key="K", app_id="1", transport=offline(30))
    tracker.track_app_launch()
    threading.Thread(target=tracker.flush, args=(20,), daemon=True).start()
    time.sleep(0.3)  # a call under way in the parent at the fork
    pid = os.fork()
    if pid == 0:
        try:
            tracker.track_event("in_child", "")
            os._exit(3)
        except quorvel.QuorvelError:
            pass
        tracker.close()
        sys.exit(0)  # the exit handlers run, as a host's child would run them
    for _ in range(200):
        done, status = os.waitpid(pid, os.WNOHANG)
        if done:
            print("child", os.waitstatus_to_exitcode(status), flush=True)
            break
        time.sleep(0.05)
    else:
        os.kill(pid, 9)
        print("child hung", flush=True)
    os._exit(0)
    """.replace("\n    ", "\n"), tmp_path)
    out, err = child.communicate(timeout=60)
    assert out.strip() == "child 0", err


def test_ctrl_c_interrupts_a_flush(tmp_path):
    child = run_python(OFFLINE + """
    tracker = quorvel.Tracker(f"{folder}/app", keychain_directory=f"{folder}/keys",
                              dev_key="K", app_id="1", transport=offline(30))
    tracker.track_app_launch()
    print("flushing", flush=True)
    started = time.monotonic()
    try:
        tracker.flush(60)
    except KeyboardInterrupt:
        print(f"interrupted {time.monotonic() - started:.3f}", flush=True)
    import os
    os._exit(0)  # not waiting for the transport's 30 s sends
    """.replace("\n    ", "\n"), tmp_path)
    assert child.stdout.readline().strip() == "flushing"
    threading.Event().wait(0.3)  # into the flush's wait
    child.send_signal(signal.SIGINT)
    out, err = child.communicate(timeout=60)
    # A hang catcher, not a timing: before, the interrupt waited for the whole flush.
    assert re.fullmatch(r"interrupted ([0-9.]+)", out.strip()), err
    assert float(out.split()[1]) < 5


def test_ctrl_c_in_close_still_releases_the_tracker_and_then_what_it_lent(tmp_path):
    tracker = quorvel.Tracker(tmp_path / "app", keychain_directory=tmp_path / "keys")
    entered, leave = threading.Event(), threading.Event()

    def busy():
        with tracker._handle.use():
            entered.set()
            leave.wait(30)

    worker = threading.Thread(target=busy)
    worker.start()
    assert entered.wait(30)
    interrupt = threading.Timer(0.2, signal.pthread_kill,
                                (threading.main_thread().ident, signal.SIGINT))
    interrupt.start()
    with pytest.raises(KeyboardInterrupt):
        tracker.close()  # waits for `busy`, until interrupted
    interrupt.join()
    leave.set()
    worker.join(30)
    assert tracker._handle._handle is None  # released by the last call out

    def lent():
        return any(tracker._callbacks in kept for kept in quorvel._lent.values())

    # The C functions stay until the library's release notice, which follows the release.
    for _ in range(3000):
        if not lent():
            break
        threading.Event().wait(0.01)
    assert not lent()


def test_a_worker_that_cannot_start_answers_its_request_once(tmp_path):
    # Every other worker fails to start: its request is failed at once, and neither answered
    # again by a later worker (freed twice) nor left counted as a worker.
    child = run_python(OFFLINE + """
    start, starts = threading.Thread.start, []
    def flaky_start(thread):
        starts.append(thread.name)
        if thread.name == "quorvel-http" and len(starts) % 2:
            raise RuntimeError("can't start new thread")
        start(thread)
    threading.Thread.start = flaky_start
    tracker = quorvel.Tracker(f"{folder}/app", keychain_directory=f"{folder}/keys",
                              dev_key="K", app_id="1", transport=offline(0.05))
    for i in range(100):
        tracker.track_event("e", str(i))
        try:
            tracker.flush(0.1)
        except quorvel.QuorvelError:
            pass
        if len(starts) > 6:
            break
    live = sum(t.name == "quorvel-http" for t in threading.enumerate())
    print(len(starts) > 4, live == tracker._transport._workers, flush=True)
    tracker.close()
    """.replace("\n    ", "\n"), tmp_path)
    out, err = child.communicate(timeout=60)
    assert child.returncode == 0 and out.split() == ["True", "True"], err


def test_collection_on_its_own_transport_worker_is_quiet(tmp_path):
    holder = []
    collected = threading.Event()

    def send(request):
        holder.clear()  # the last reference goes on this worker thread
        collected.set()
        raise ConnectionRefusedError("offline")

    problems = []
    previous, sys.unraisablehook = sys.unraisablehook, problems.append
    try:
        holder.append(quorvel.Tracker(tmp_path / "app", keychain_directory=tmp_path / "keys",
                                      dev_key="K", app_id="1", transport=send))
        holder[0].track_app_launch()
        assert collected.wait(30)
    finally:
        sys.unraisablehook = previous
    assert not problems


def test_purchases_bytes_paths_and_argument_checks(tmp_path):
    results, caught, escaped = [], [], []
    answered = threading.Event()

    def on_result(succeeded, answer):
        results.append(succeeded)
        answered.set()
        raise SystemExit  # reported, never raised into the library's thread

    hooks = sys.excepthook, sys.unraisablehook
    sys.excepthook = lambda kind, *_: caught.append(kind)
    sys.unraisablehook = escaped.append

    sent = []

    def offline(request):
        sent.append(request.url)
        raise ConnectionRefusedError("offline")

    (tmp_path / "receipt").write_bytes(b"\x01store receipt")
    with quorvel.Tracker(os.fsencode(tmp_path / "bytes"), keychain_directory=tmp_path / "keys",
                         receipt_path=tmp_path / "receipt", dev_key="K", app_id="1",
                         transport=offline, flush_timeout=1) as tracker:
        tracker.validate_and_track_purchase("gem", "0.99", "USD", "t-1", on_result)
        with pytest.raises(TypeError):
            tracker.set_callbacks(on_conversion_data=5)
        with pytest.raises(TypeError):
            tracker.validate_and_track_purchase("gem", "0.99", "USD", "t-2", on_result="no")
        with pytest.raises(TypeError):
            tracker.flush("soon")
        with pytest.raises(quorvel.QuorvelError):  # nested deeper than the library's bound
            tracker.track_event("deep", {"v": __import__("json").loads("[" * 200 + "]" * 200)})
        assert answered.wait(30) and results == [False]
        assert sent  # with its receipt the purchase went out (and failed offline)
        tracker.track_event("last", "1")
        with pytest.raises(quorvel.QuorvelError, match="failed"):
            tracker.flush(1e7)  # clamped, not wrapped; a failed send is said as such
    sys.excepthook, sys.unraisablehook = hooks
    assert caught == [SystemExit] and not escaped
    assert (tmp_path / "bytes").is_dir()
    assert not any("b'" in p.name for p in tmp_path.iterdir())


def test_the_readme_example_runs_as_written(devserver, tmp_path):
    example = re.search(r"```python\n(.*?)```", README.read_text(), re.S).group(1)
    example = example.replace('dev_key="..."', f'dev_key="{DEV_KEY}"')
    example = example.replace('app_id="123456789"', f'app_id="{APP_ID}"')
    # The emulator stands in for the service: the only change to the program.
    prelude = f"""
import functools, quorvel
quorvel.Tracker.__init__ = functools.partialmethod(quorvel.Tracker.__init__,
    service_domain={devserver["domain"]!r}, extra_ca_file={devserver["ca_file"]!r})
"""
    child = subprocess.run([sys.executable, "-c", prelude + example], capture_output=True,
                           text=True, timeout=60, env={**os.environ, "HOME": str(tmp_path)})
    assert child.returncode == 0, child.stderr
    assert any("level_up" in str(r.get("decrypted")) for r in devserver["received"]())


def test_a_send_that_raised_says_whether_its_request_may_have_arrived():
    import socket
    import urllib.error

    def caused(error, cause):
        error.__cause__ = cause
        return error

    for error, code in ((urllib.error.URLError(ConnectionRefusedError(111, "refused")), -1004),
                        (socket.gaierror(-2, "no such host"), -1003),
                        (OSError(101, "unreachable"), -1009),
                        (caused(RuntimeError("read failed"), socket.timeout("timed out")), -1001),
                        (ConnectionResetError(104, "reset"), -1005),
                        (ValueError("the host's own"), -1)):
        assert quorvel._failure_code(error) == code, error
