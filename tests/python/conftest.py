"""Each pytest process gets its own store, run directory and so its own
interest service, set up before the module loads the library and stopped
when the session ends. CTest runs every test in a process of its own."""

import os
import shutil
import signal
import tempfile
import time

_DIR = tempfile.mkdtemp(prefix="sfl-pytest-")
for _sub in ("store", "run"):
    os.mkdir(os.path.join(_DIR, _sub))
os.environ["SFL_STORE_ROOT"] = os.path.join(_DIR, "store")
os.environ["SFL_RUN_DIR"] = os.path.join(_DIR, "run")
os.environ["SFL_LOG_FILE"] = os.path.join(_DIR, "sfl.log")
if os.environ.get("SFL_TEST_BIN_DIR"):
    os.environ["SFL_MONITOR_PROGRAM"] = os.path.join(os.environ["SFL_TEST_BIN_DIR"], "bin",
                                                     "sfl-monitor")


def service_pid():
    """The pid of the interest service of this session's run directory."""
    try:
        with open(os.path.join(_DIR, "run", "sfl-monitor.state"), encoding="ascii") as f:
            for line in f:
                if line.startswith("main "):
                    return int(line.split()[1])
    except OSError:
        pass
    return None


def _stop_service():
    pid = service_pid()
    if pid is None or pid == os.getpid():
        return
    try:
        os.kill(pid, signal.SIGTERM)
    except ProcessLookupError:
        return
    for _ in range(500):
        try:
            os.kill(pid, 0)
            with open(f"/proc/{pid}/stat", encoding="ascii") as f:
                if f.read().rsplit(")", 1)[1].split()[0] == "Z":
                    return  # gone; its parent has yet to reap it
        except (ProcessLookupError, FileNotFoundError):
            return
        time.sleep(0.01)
    os.kill(pid, signal.SIGKILL)


def pytest_sessionfinish(session, exitstatus):
    _stop_service()
    if not os.environ.get("SFL_TEST_KEEP"):
        shutil.rmtree(_DIR, ignore_errors=True)
