"""Two connections, one with a call on its way, while the stand-in gateway is stopped: neither is cut
off, both are told."""

import subprocess
import threading

import qpxclient


def code_of(connection: qpxclient.Connection, program: str) -> int:
    try:
        connection.call(program, b"hello")
        return 0
    except qpxclient.Error as error:
        return int(error.code)


def await_log(text: str) -> None:
    """Until the service has logged the text, now or before."""
    log = subprocess.Popen(["journalctl", "--unit", "qpxgatewayd", "--follow", "--no-tail"],
                           stdout=subprocess.PIPE, text=True)
    assert log.stdout is not None
    for line in log.stdout:
        if text in line:
            break
    log.kill()
    log.communicate()


idle = qpxclient.connect("127.0.0.1", 5770)
busy = qpxclient.connect("127.0.0.1", 5770)
codes = []
waiting = threading.Thread(target=lambda: codes.append(code_of(busy, "SLOW")))
waiting.start()
await_log('program="SLOW"')
subprocess.run(["systemctl", "stop", "qpxgatewayd"], check=True)
waiting.join()
print("on its way:", *codes)
print("idle:", code_of(idle, "ECHO"))
