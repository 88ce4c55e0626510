'''The mosquitto broker of the world, and a port that never answers.'''

import os
import socket
import subprocess

from processes import free_port, kill_group, spawn, wait_until

class Broker:
    '''mosquitto on 127.0.0.1 (or the host given), on a port chosen per run; stop() and start() keep the port.'''

    def __init__(self, directory, port=None, users=None, extra_config=(), host='127.0.0.1'):
        self.directory = directory
        self.host = host
        self.extra_config = list(extra_config)
        self.port = port or free_port()
        self.users = users or {}
        self.proc = None
        self.config_file = os.path.join(directory, 'mosquitto.conf')
        self.password_file = os.path.join(directory, 'mosquitto.passwd')
        self.log_file = os.path.join(directory, 'mosquitto.log')

    def _write_config(self):
        lines = [f'listener {self.port} {self.host}', 'set_tcp_nodelay true', 'log_dest stderr',
                 'log_type error', 'log_type warning', 'log_type notice', 'log_type information',
                 'persistence false']
        if self.users:
            if os.path.exists(self.password_file):
                os.unlink(self.password_file)
            for user, password in self.users.items():
                create = [] if os.path.exists(self.password_file) else ['-c']
                subprocess.run(['mosquitto_passwd', *create, '-b', self.password_file, user, password],
                               check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            os.chmod(self.password_file, 0o644)
            lines += ['allow_anonymous false', f'password_file {self.password_file}']
        else:
            lines.append('allow_anonymous true')
        lines += self.extra_config
        with open(self.config_file, 'w') as f:
            f.write('\n'.join(lines) + '\n')
        os.chmod(self.config_file, 0o644)

    def start(self, timeout=10):
        self._write_config()
        self.proc = spawn(['mosquitto', '-c', self.config_file], stdin=subprocess.DEVNULL,
                          stdout=subprocess.DEVNULL, stderr=open(self.log_file, 'ab'))

        def listening():
            if self.proc.poll() is not None:
                raise RuntimeError(f'mosquitto exited with {self.proc.returncode}; see {self.log_file}')
            try:
                socket.create_connection((self.host, self.port), timeout=0.5).close()
                return True
            except OSError:
                return False
        wait_until(listening, timeout, f'mosquitto on port {self.port}', interval=0.01)

    def stop(self):
        kill_group(self.proc)
        self.proc = None

    def restart(self):
        self.stop()
        self.start()

    @property
    def running(self):
        return self.proc is not None and self.proc.poll() is None


class SilentListener:
    '''A TCP port on 127.0.0.1 that completes the handshake (the kernel does) and never says a word.'''

    def __init__(self):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.sock.bind(('127.0.0.1', 0))
        self.sock.listen(64)
        self.port = self.sock.getsockname()[1]

    def close(self):
        self.sock.close()
