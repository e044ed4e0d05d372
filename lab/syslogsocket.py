"""Plays the system logger for a device root: binds <root>/dev/log and hands
every datagram the daemon sends there to a callback, on a thread of its own."""

import os
import socket
import threading


class SyslogSocket:
    def __init__(self, root, on_datagram):
        self.path = os.path.join(root, "dev", "log")
        if os.path.lexists(self.path):
            os.unlink(self.path)
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(self.path)
        self.sock.settimeout(0.2)
        self.on_datagram = on_datagram
        self.running = True
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        while self.running:
            try:
                data = self.sock.recv(65536)
            except socket.timeout:
                continue
            except OSError:
                return
            self.on_datagram(data.decode(errors="replace"))

    def close(self):
        self.running = False
        self.sock.close()
        self.thread.join(timeout=1)
