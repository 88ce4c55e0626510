'''tarvik as a child process: its INI file, its environment, its log lines and syslog records.'''

import glob
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import threading

from netcounters import write_counters
from processes import forget, kill_group, spawn

CONFIG_GROUPS = ('Mqtt', 'Ethernet', 'Wifi', 'Modem')

# Runs the command in a private mount namespace: $TARVIK_TMP (when set) bound on /tmp, $TARVIK_NET on
# /sys/class/net (interface counters the test controls); with
# $TARVIK_SYSLOG set, a small /dev of the usual nodes whose /dev/log is the test's datagram socket.
NAMESPACE_SCRIPT = r'''set -e
if [ -n "$TARVIK_TMP" ]; then mount --bind "$TARVIK_TMP" /tmp; fi
if [ -n "$TARVIK_NET" ]; then mount --bind "$TARVIK_NET" /sys/class/net; fi
if [ -n "$TARVIK_SYSLOG" ]; then
  dev="$TARVIK_DEV"
  mount -t tmpfs -o mode=0755,size=64k tarvik-dev "$dev"
  for node in null zero full random urandom tty console ptmx; do
    if [ -e "/dev/$node" ]; then touch "$dev/$node"; mount --bind "/dev/$node" "$dev/$node"; fi
  done
  for dir in pts shm mqueue; do
    if [ -d "/dev/$dir" ]; then mkdir "$dev/$dir"; mount --bind "/dev/$dir" "$dev/$dir"; fi
  done
  ln -s /proc/self/fd "$dev/fd"; ln -s /proc/self/fd/0 "$dev/stdin"
  ln -s /proc/self/fd/1 "$dev/stdout"; ln -s /proc/self/fd/2 "$dev/stderr"
  touch "$dev/log"; mount --bind "$TARVIK_SYSLOG" "$dev/log"
  mount --move "$dev" /dev
fi
unset TARVIK_TMP TARVIK_NET TARVIK_SYSLOG TARVIK_DEV
exec "$@"
'''

SYSLOG_LINE = re.compile(r'^<(\d+)>(\w{3} [ \d]\d \d\d:\d\d:\d\d) ([^:\[]*)(?:\[(\d+)\])?: (.*)$', re.S)


class SyslogRecord:
    '''One datagram as glibc's syslog() sends it: "<PRI>Mmm dd hh:mm:ss ident[pid]: message".'''

    def __init__(self, raw):
        self.raw = raw
        match = SYSLOG_LINE.match(raw)
        pri = int(match.group(1)) if match else -1
        self.priority = pri & 7 if match else None
        self.facility = pri >> 3 if match else None
        self.timestamp = match.group(2) if match else None
        self.ident = match.group(3) if match else None
        self.pid = int(match.group(4)) if match and match.group(4) else None
        self.message = match.group(5) if match else raw

    def __repr__(self):
        return f'SyslogRecord(priority={self.priority}, facility={self.facility}, {self.message!r})'


class SyslogSink:
    '''A datagram socket that stands in for /dev/log and collects what arrives.'''

    def __init__(self, path):
        self.path = path
        if os.path.exists(path):
            os.unlink(path)
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(path)
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        os.chmod(path, 0o666)
        self.records = []
        self.cond = threading.Condition()
        self._closed = False
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        while True:
            try:
                data = self.sock.recv(65536)
            except OSError:
                return
            if self._closed:
                return
            with self.cond:
                self.records.append(SyslogRecord(data.decode('utf-8', 'replace').rstrip('\n\0')))
                self.cond.notify_all()

    def close(self):
        self._closed = True
        try:
            self.sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.sock.close()
        self._thread.join(2)


def _ini_value(value):
    if isinstance(value, bool):
        return 'true' if value else 'false'
    text = str(value)
    if text == '' or re.fullmatch(r'[A-Za-z0-9_.:/@*#+\-]+', text):
        return text
    return '"' + text.replace('\\', '\\\\').replace('"', '\\"') + '"'


def config_text(config):
    '''The INI text of a configuration given as {"Group": {"key": value}} and/or {"Group/key": value}.'''
    groups = {}
    for key, value in config.items():
        if isinstance(value, dict):
            groups.setdefault(key, {}).update(value)
        else:
            group, _, name = key.partition('/')
            groups.setdefault(group, {})[name] = value
    order = [g for g in CONFIG_GROUPS if g in groups] + [g for g in groups if g not in CONFIG_GROUPS]
    lines = []
    for group in order:
        lines.append(f'[{group}]')
        lines += [f'{name}={_ini_value(value)}' for name, value in groups[group].items()]
        lines.append('')
    return '\n'.join(lines)


def under_tmp(path):
    '''Whether a path lies in /tmp, which a tarvik with a private /tmp cannot see.'''
    real = os.path.realpath(path)
    return real == '/tmp' or real.startswith('/tmp/')


def config_keys(path):
    '''The INI file as {"Group/key": text}, the form tarvik's configuration is compared in.'''
    keys, group = {}, None
    with open(path) as f:
        for line in f.read().splitlines():
            if line.startswith('['):
                group = line.strip('[]')
            elif '=' in line:
                name, _, value = line.partition('=')
                keys[f'{group}/{name}'] = value
    return keys


def libfaketime():
    found = sorted(glob.glob('/usr/lib/*/faketime/libfaketime.so.1') + glob.glob('/usr/lib/faketime/libfaketime.so.1'))
    if not found:
        raise RuntimeError('libfaketime is not installed (Debian package faketime)')
    return found[0]


class Tarvik:
    '''The tarvik process: INI file, environment, stderr collected line by line in a thread.'''

    def __init__(self, world, config=None, args=None, extra_args=(), cwd=None, private_tmp=False,
                 faketime=None, env=None, config_path=None, write_config=True, binary=None, syslog=True,
                 net_counters=None):
        self.world = world
        self.syslog = None
        # A mount namespace needs root; elsewhere tarvik simply runs with the system's /dev.
        self._syslog_wanted = syslog and os.geteuid() == 0
        self._syslog_cursor = 0
        self.binary = binary or os.environ.get('TARVIK_BINARY') or 'tarvik'
        if os.sep in self.binary:
            self.binary = os.path.abspath(self.binary)   # tarvik runs in its own working directory
        self.config_path = config_path or os.path.join(world.directory, 'tarvik.conf')
        self.cwd = cwd or world.directory
        self.tmp_dir = os.path.join(world.directory, 'private-tmp') if private_tmp else None
        if self.tmp_dir and under_tmp(self.binary):
            # A checkout in /tmp disappears behind the private /tmp: run a copy from the world directory.
            handle, copy = tempfile.mkstemp(prefix='tarvik-', dir=world.directory)
            os.close(handle)
            shutil.copy2(self.binary, copy)
            self.binary = copy
        self.net_dir = None
        if net_counters is not None:
            self.net_dir = os.path.join(world.directory, 'sys-class-net')
            for iface, (rx, tx) in net_counters.items():
                self.set_counters(iface, rx, tx)
        self.faketime = faketime
        self.extra_env = env or {}
        self.proc = None
        self.log_lines = []
        self.stdout_lines = []
        self._cursor = 0
        self._cond = threading.Condition()
        self._threads = []
        if write_config:
            merged = world.tarvik_config()
            for key, value in (config or {}).items():
                if isinstance(value, dict):
                    merged.setdefault(key, {}).update(value)
                else:
                    group, _, name = key.partition('/')
                    merged.setdefault(group, {})[name] = value
            with open(self.config_path, 'w') as f:
                f.write(config_text(merged))
        self.args = list(args) if args is not None else ['-f', self.config_path, '-e', '-v', '3']
        self.args = [a.replace('{config}', self.config_path) for a in self.args] + list(extra_args)

    def command_line(self):
        cmd = [self.binary] + self.args
        if self.tmp_dir or self.net_dir or self._syslog_wanted:
            cmd = ['unshare', '--mount', '--propagation', 'private', 'sh', '-c', NAMESPACE_SCRIPT, 'tarvik-ns'] + cmd
        return cmd

    def _namespace_env(self):
        env = {}
        if self.tmp_dir:
            os.makedirs(self.tmp_dir, exist_ok=True)
            env['TARVIK_TMP'] = self.tmp_dir
        if self.net_dir:
            env['TARVIK_NET'] = self.net_dir
        if self._syslog_wanted:
            index = len(self.world._tarviks)
            self.syslog = SyslogSink(os.path.join(self.world.directory, f'syslog-{index}.sock'))
            dev = os.path.join(self.world.directory, f'dev-{index}')
            os.makedirs(dev, exist_ok=True)
            env.update(TARVIK_SYSLOG=self.syslog.path, TARVIK_DEV=dev)
        return env

    def start(self):
        env = dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS=self.world.bus_address)
        env.pop('DBUS_SESSION_BUS_ADDRESS', None)
        env.update(self._namespace_env())
        if self.faketime:
            # Preloaded directly: the faketime wrapper leaves a semaphore in /dev/shm behind whenever it is
            # killed, and a later wrapper that happens to get the same pid then refuses to start.
            env.update(LD_PRELOAD=libfaketime(), FAKETIME=self.faketime)
            env.setdefault('FAKETIME_DONT_FAKE_MONOTONIC', '1')
            # libfaketime comes first in LD_PRELOAD, which a sanitizer build refuses unless told.
            env['ASAN_OPTIONS'] = ':'.join(filter(None, [env.get('ASAN_OPTIONS'), 'verify_asan_link_order=0']))
        env.update(self.extra_env)
        os.makedirs(self.cwd, exist_ok=True)
        self.proc = spawn(self.command_line(), cwd=self.cwd, env=env, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        for stream, lines in ((self.proc.stderr, self.log_lines), (self.proc.stdout, self.stdout_lines)):
            thread = threading.Thread(target=self._read, args=(stream, lines), daemon=True)
            thread.start()
            self._threads.append(thread)
        return self

    def _read(self, stream, lines):
        for raw in iter(stream.readline, b''):
            with self._cond:
                lines.append(raw.decode('utf-8', 'replace').rstrip('\n'))
                self._cond.notify_all()
        with self._cond:
            self._cond.notify_all()

    @property
    def running(self):
        return self.proc is not None and self.proc.poll() is None

    def wait_for_log(self, pattern, timeout=10):
        '''The next stderr line (after the previous match) that matches the regular expression.'''
        regex = re.compile(pattern)

        def find():
            for index in range(self._cursor, len(self.log_lines)):
                match = regex.search(self.log_lines[index])
                if match:
                    self._cursor = index + 1
                    return match
            if self.proc.poll() is not None and all(not t.is_alive() for t in self._threads):
                return 'exited'
            return None
        with self._cond:
            found = self._cond.wait_for(find, timeout)
        if found is None or found == 'exited':
            why = f'tarvik exited with {self.proc.returncode}' if found == 'exited' else f'timed out after {timeout} s'
            tail = '\n'.join(self.log_lines[-40:])
            raise AssertionError(f'no log line matching {pattern!r} ({why}); last lines:\n{tail}')
        return found

    def mark(self):
        '''Later waits only look at lines (and syslog records) that arrive from now on.'''
        with self._cond:
            self._cursor = len(self.log_lines)
        if self.syslog:
            with self.syslog.cond:
                self._syslog_cursor = len(self.syslog.records)

    def wait_for_syslog(self, pattern, timeout=10):
        '''The next syslog record (after the previous match) whose message matches; a SyslogRecord.'''
        if not self.syslog:
            raise RuntimeError('tarvik runs without syslog capture')
        regex = re.compile(pattern)

        def find():
            records = self.syslog.records
            for index in range(self._syslog_cursor, len(records)):
                if regex.search(records[index].message):
                    self._syslog_cursor = index + 1
                    return records[index]
            return None
        with self.syslog.cond:
            found = self.syslog.cond.wait_for(find, timeout)
        if found is None:
            tail = '\n'.join(r.raw for r in self.syslog.records[-20:])
            raise AssertionError(f'no syslog record matching {pattern!r} within {timeout} s; last:\n{tail}')
        return found

    @property
    def syslog_records(self):
        return list(self.syslog.records) if self.syslog else []

    def lines_matching(self, pattern):
        regex = re.compile(pattern)
        with self._cond:
            return [line for line in self.log_lines if regex.search(line)]

    def set_counters(self, iface, rx_bytes, tx_bytes):
        '''What tarvik reads from /sys/class/net/<iface>/statistics/{rx,tx}_bytes (net_counters only).'''
        if self.net_dir is None:
            raise RuntimeError('tarvik runs without net_counters')
        write_counters(self.net_dir, iface, rx_bytes, tx_bytes)

    def tmp_file(self, name):
        '''Path of a file that tarvik sees as /tmp/<name> (private_tmp only).'''
        return os.path.join(self.tmp_dir, name)

    def stop(self, sig=signal.SIGTERM, timeout=5):
        code = kill_group(self.proc, timeout, sig)
        for thread in self._threads:
            thread.join(2)
        self._close_syslog()
        self._remove_faketime_leftovers()
        return code

    def _remove_faketime_leftovers(self):
        '''libfaketime keeps a semaphore and a shared memory segment per process in /dev/shm and removes them
        only at a normal exit; tarvik ends by a signal.'''
        if not self.faketime or self.proc is None:
            return
        for name in (f'sem.faketime_sem_{self.proc.pid}', f'faketime_shm_{self.proc.pid}'):
            try:
                os.unlink(os.path.join('/dev/shm', name))
            except FileNotFoundError:
                pass

    def _close_syslog(self):
        if self.syslog:
            self.syslog.close()

    def wait(self, timeout=10):
        try:
            code = self.proc.wait(timeout)
        finally:
            if self.proc.poll() is not None:
                forget(self.proc)
        for thread in self._threads:
            thread.join(2)
        return code
