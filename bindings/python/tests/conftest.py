"""The emulator the session tests send to, on loopback."""

import json
import os
import subprocess
import time
from pathlib import Path

import pytest

APP_ID = "123456789"
DEV_KEY = "PYTHON-DEV-KEY-01"
ROOT = Path(__file__).resolve().parents[3]


@pytest.fixture
def devserver(tmp_path):
    binary = os.environ.get("QUORVEL_DEVSERVER", "quorvel-devserver")
    data = tmp_path / "devserver"
    process = subprocess.Popen(
        [binary, "--port", "0", "--data-dir", str(data), "--app", f"{APP_ID}={DEV_KEY}",
         "--conversion-data", str(ROOT / "tools/devserver/examples/conversion-data.json")],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    state = data / "server.json"
    deadline = time.monotonic() + 20
    while not (state.exists() and state.stat().st_size) and time.monotonic() < deadline:
        assert process.poll() is None, "quorvel-devserver stopped"
        time.sleep(0.05)
    server = json.loads(state.read_text())

    def received():
        out = subprocess.run([binary, "requests", "--json", "--data-dir", str(data)],
                             check=True, capture_output=True, text=True).stdout
        return json.loads(out)

    yield {"domain": server["service_domain"], "ca_file": server["ca_file"],
           "received": received}
    process.terminate()
    process.wait(timeout=20)
