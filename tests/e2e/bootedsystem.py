"""A Debian 12 system booted with its own systemd, for the package's tests.

The root file system comes from the Debian archive (mmdebstrap) and is kept, keyed by its package list, in
/var/cache/tarvik-tests; each boot runs on a fresh copy. systemd-nspawn boots it with a private network.
Inside run the real NetworkManager, mosquitto and, in place of ModemManager (installed, but its unit does not
start in a container), the project's simulated one with a veth as the modem's data port.

The test drives it from outside: commands through nsenter, D-Bus through the container's bus socket, MQTT
from a thread that entered the container's network namespace.
"""

import contextlib
import ctypes
import glob
import hashlib
import os
import re
import shutil
import signal
import subprocess
import tempfile

import dbus

from processes import wait_until

CACHE = '/var/cache/tarvik-tests'
WORLD = os.path.join(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))), 'world')
BASE_PACKAGES = ['systemd', 'systemd-sysv', 'dbus', 'network-manager', 'modemmanager', 'mosquitto', 'iproute2',
                 'python3-dbusmock', 'python3-dbus', 'python3-gi']
DATA_PORT, CARRIER_PORT = 'wwan0', 'carrier0'
_CLONE_NEWNET = 0x40000000

SIMULATED_MODEMMANAGER_UNIT = """[Unit]
Description=Simulated ModemManager (tarvik's tests)
[Service]
# Not Type=dbus: ModemManager.service claims the bus name already.
Type=exec
ExecStart=/usr/bin/python3 -m dbusmock --system --template /opt/tarvik-world/templates/modemmanager.py
"""
# The far end of the modem's data port keeps its address: the daemon manages the modem only.
NETWORKMANAGER_CONF = f"""[main]
no-auto-default=*
[keyfile]
unmanaged-devices=interface-name:{CARRIER_PORT}
"""


class Unavailable(Exception):
    """This machine cannot build or boot the system (the tests skip, naming the reason)."""


def depends_of(deb):
    """The package names the .deb depends on (versions dropped)."""
    field = subprocess.run(['dpkg-deb', '-f', deb, 'Depends'], check=True, capture_output=True, text=True).stdout
    return sorted({part.split()[0] for part in field.replace('|', ',').split(',') if part.strip()})


def root_tarball(packages):
    """The root file system with these packages, built once."""
    for program, package in (('mmdebstrap', 'mmdebstrap'), ('systemd-nspawn', 'systemd-container')):
        if not shutil.which(program):
            raise Unavailable(f'{program} is not installed (Debian package {package})')
    if os.geteuid() != 0:
        raise Unavailable('booting a container needs root')
    key = hashlib.sha256(' '.join(sorted(packages)).encode()).hexdigest()[:16]
    tarball = os.path.join(CACHE, f'bookworm-{key}.tar')
    if not os.path.exists(tarball):
        os.makedirs(CACHE, exist_ok=True)
        partial = tarball + '.partial'
        built = subprocess.run(['mmdebstrap', '--quiet', '--variant=minbase', '--format=tar', '--include=' + ','.join(packages),
                                'bookworm', partial], capture_output=True, text=True)
        if built.returncode != 0:
            raise Unavailable('mmdebstrap could not build the root file system: '
                              + (built.stderr.strip().splitlines() or ['?'])[-1])
        os.rename(partial, tarball)
    return tarball


class BootedSystem:
    def __init__(self, tarball, directory):
        self.directory = directory
        self.root = os.path.join(directory, 'root')
        self.console = os.path.join(directory, 'console.log')
        os.makedirs(self.root)
        subprocess.run(['tar', '-C', self.root, '-xf', tarball], check=True)
        self._prepare()
        self.nspawn = self.leader = None
        self._left = [path for path in self._leftovers() if not os.path.exists(path)]

    def _prepare(self):
        shutil.copytree(WORLD, os.path.join(self.root, 'opt/tarvik-world'),
                        ignore=shutil.ignore_patterns('__pycache__'))
        self.write('/etc/systemd/system/simulated-modemmanager.service', SIMULATED_MODEMMANAGER_UNIT)
        self.write('/etc/NetworkManager/conf.d/tarvik-test.conf', NETWORKMANAGER_CONF)

    def write(self, path, text, mode=0o644):
        target = os.path.join(self.root, path.lstrip('/'))
        os.makedirs(os.path.dirname(target), exist_ok=True)
        with open(target, 'w') as f:
            f.write(text)
        os.chmod(target, mode)

    def path(self, path):
        """A path inside, as seen from outside (through the running system's root)."""
        return f'/proc/{self.leader}/root{path}'

    def boot(self, timeout=60):
        self.nspawn = subprocess.Popen(
            ['systemd-nspawn', '-q', '-D', self.root, '-b', '-M', 'tarvik-boot', '--register=no', '--keep-unit',
             '--private-network'], stdin=subprocess.DEVNULL, stdout=open(self.console, 'wb'),
            stderr=subprocess.STDOUT, start_new_session=True)

        def leader():
            if self.nspawn.poll() is not None:
                raise Unavailable('systemd-nspawn could not boot the container: ' + self.console_tail())
            for children in glob.glob(f'/proc/{self.nspawn.pid}/task/*/children'):
                with open(children) as f:
                    pids = f.read().split()
                for pid in pids:
                    # nspawn's own helper first, then the container's PID 1 once it runs systemd.
                    with contextlib.suppress(OSError), open(f'/proc/{pid}/comm') as comm:
                        if comm.read().strip() == 'systemd':
                            return int(pid)
            return None
        self.leader = wait_until(leader, timeout, 'the container to start', interval=0.05)

        def booted():
            # Answers nothing until PID 1 listens, then waits for the boot to end.
            state = self.run('systemctl', 'is-system-running', '--wait', check=False, timeout=timeout).stdout.strip()
            if state in ('maintenance', 'stopping'):
                raise RuntimeError(f'the container did not boot ({state})' + self.console_tail())
            return state in ('running', 'degraded')
        wait_until(booted, timeout, 'the container to boot', interval=0.1)
        self.run('ip', 'link', 'add', DATA_PORT, 'type', 'veth', 'peer', 'name', CARRIER_PORT)
        self.run('ip', 'address', 'add', '10.64.0.1/24', 'dev', CARRIER_PORT)
        self.run('ip', 'link', 'set', CARRIER_PORT, 'up')
        return self

    def console_tail(self):
        with open(self.console, errors='replace') as f:
            return '\n' + ''.join(f.readlines()[-15:])

    def run(self, *command, check=True, timeout=60):
        result = subprocess.run(['nsenter', '-t', str(self.leader), '-m', '-u', '-i', '-n', '-p', *command],
                                capture_output=True, text=True, timeout=timeout)
        if check and result.returncode != 0:
            raise RuntimeError(f'{" ".join(command)}: {result.returncode}\n{result.stdout}{result.stderr}')
        return result

    def systemctl(self, *args, check=True):
        return self.run('systemctl', *args, check=check).stdout.strip()

    def main_pid(self, unit='tarvik'):
        return int(self.systemctl('show', '-p', 'MainPID', '--value', unit))

    def bus(self, owned=None):
        """An object with .connection: the system bus inside (once the name is owned, when one is given)."""
        class Bus:
            connection = dbus.bus.BusConnection(f'unix:path={self.path("/run/dbus/system_bus_socket")}')
        if owned:
            wait_until(lambda: Bus.connection.name_has_owner(owned), 20, f'{owned} on the bus', interval=0.05)
        return Bus()

    @contextlib.contextmanager
    def network(self):
        """The calling thread in the container's network for a while (sockets and threads it makes stay)."""
        setns = ctypes.CDLL('libc.so.6', use_errno=True).setns
        with open('/proc/thread-self/ns/net') as own, open(f'/proc/{self.leader}/ns/net') as target:
            if setns(target.fileno(), _CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), 'setns into the container')
            try:
                yield
            finally:
                setns(own.fileno(), _CLONE_NEWNET)

    def shutdown(self, timeout=30):
        if self.nspawn and self.nspawn.poll() is None:
            # SIGTERM asks nspawn for an orderly shutdown of the container.
            self.nspawn.send_signal(signal.SIGTERM)
            try:
                self.nspawn.wait(timeout)
            except subprocess.TimeoutExpired:
                os.killpg(self.nspawn.pid, signal.SIGKILL)
                self.nspawn.wait()
        for path in self._left:
            if os.path.isdir(path) and path.startswith('/sys/fs/cgroup'):
                # nspawn may leave before the container's processes are gone.
                wait_until(lambda: not self._kill_all(path), 10, f'the processes of {path} to end', interval=0.05)
                for directory, _, _ in sorted(os.walk(path), key=lambda entry: -entry[0].count('/')):
                    with contextlib.suppress(OSError):
                        os.rmdir(directory)
            elif os.path.exists(path):
                shutil.rmtree(path, ignore_errors=True)
        shutil.rmtree(self.directory, ignore_errors=True)

    @staticmethod
    def _kill_all(cgroup):
        """SIGKILL to every process left in the cgroup tree; the number there was."""
        pids = set()
        for directory, _, files in os.walk(cgroup):
            if 'cgroup.procs' in files:
                with contextlib.suppress(OSError), open(os.path.join(directory, 'cgroup.procs')) as f:
                    pids.update(int(pid) for pid in f.read().split())
        for pid in pids:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        return len(pids)

    @staticmethod
    def _leftovers():
        """What nspawn leaves behind where PID 1 is not systemd: its cgroups beside ours and its runtime
        directory (removed afterwards when they were not there before)."""
        with open('/proc/self/cgroup') as f:
            own = {line.split(':')[1]: line.strip().split(':', 2)[2] for line in f}
        found = []
        for hierarchy, controller in (('systemd', 'name=systemd'), ('unified', '')):
            base = f'/sys/fs/cgroup/{hierarchy}{own.get(controller, "/")}'.rstrip('/')
            found += [f'{base}/payload', f'{base}/supervisor']
        return found + ['/run/systemd/nspawn']


def booted(deb, extra_packages=()):
    """A booted system able to install the package offline."""
    tarball = root_tarball(BASE_PACKAGES + depends_of(deb) + list(extra_packages))
    system = BootedSystem(tarball, tempfile.mkdtemp(prefix='tarvik-boot-', dir='/var/tmp'))
    try:
        return system.boot()
    except BaseException:
        system.shutdown()
        raise


def journal_cursor(system):
    """Where the journal ends now."""
    shown = system.run('journalctl', '--no-pager', '-n', '1', '-o', 'cat', '--show-cursor').stdout
    return shown.rsplit('-- cursor: ', 1)[1].strip()


def wait_for_journal(system, pattern, cursor, timeout=10, unit='tarvik'):
    """The first line of the unit after the cursor that matches the regular expression."""
    def found():
        lines = system.run('journalctl', '--no-pager', '-o', 'cat', '-u', unit, '--after-cursor', cursor).stdout
        return next((line for line in lines.splitlines() if re.search(pattern, line)), None)
    return wait_until(found, timeout, f'"{pattern}" in the journal', interval=0.1)
