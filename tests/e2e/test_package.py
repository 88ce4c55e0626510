"""The Debian package: lintian, its systemd unit, and the packaged tarvik started as the unit starts it,
under the unit's confinement (unitsandbox.py), against the simulated world."""

import glob
import os
import re
import shutil
import stat
import subprocess
import tempfile

import pytest

import scenarios
import unitsandbox
from engineflow import usage_totals
from world import config_keys, wait_until

SANDBOX = os.path.join(os.path.dirname(os.path.abspath(__file__)), 'unitsandbox.py')
BASE = 'tolv/network'


@pytest.fixture(autouse=True)
def worlds_outside_home(monkeypatch):
    # The unit hides /root and /home: the bus socket must not live there.
    monkeypatch.setenv('TARVIK_WORLD_DIR', '/var/tmp')


@pytest.fixture(scope='module')
def package():
    debs = glob.glob(os.path.join(os.environ.get('TARVIK_PACKAGE_DIR', '-'), 'tarvik_*.deb'))
    if len(debs) != 1 or os.geteuid() != 0:
        pytest.skip('needs root and the package built by CTest (TARVIK_PACKAGE_DIR)')
    directory = tempfile.mkdtemp(prefix='tarvik-package-', dir='/var/tmp')
    root = os.path.join(directory, 'root')
    unitsandbox.extract(debs[0], root)
    yield debs[0], root
    shutil.rmtree(directory)


def sandbox(root, state, *command):
    return subprocess.run(['unshare', '--mount', '--propagation', 'private', SANDBOX, root, state, 'run', *command],
                          capture_output=True, text=True)


def field(deb, name):
    return subprocess.run(['dpkg-deb', '-f', deb, name], check=True, capture_output=True, text=True).stdout.strip()


def test_lintian_finds_no_error_and_systemd_accepts_the_hardened_unit(package, tmp_path):
    deb, root = package
    # lintian leaves files in $TMPDIR.
    lintian = subprocess.run(['lintian', deb], capture_output=True, text=True,
                             env=dict(os.environ, TMPDIR=str(tmp_path)))
    assert not [line for line in lintian.stdout.splitlines() if line.startswith('E:')], lintian.stdout
    assert re.search(r'libqt5core5a \(>= [\d.]+\)', field(deb, 'Depends'))   # from the shared libraries

    verify = sandbox(root, str(tmp_path), 'systemd-analyze', 'verify', '/lib/systemd/system/tarvik.service')
    assert (verify.returncode, verify.stdout + verify.stderr) == (0, '')
    security = subprocess.run(['systemd-analyze', 'security', '--offline=true', unitsandbox.unit_path(root)],
                              capture_output=True, text=True).stdout
    exposure = re.search(r'Overall exposure level for tarvik\.service: ([\d.]+) (\w+)', security)
    assert float(exposure.group(1)) <= 2.0 and exposure.group(2) == 'OK', security


def counted(state):
    '''Bytes counted in the state directory's statistics, all months together.'''
    months = usage_totals(os.path.join(state, 'var-lib', 'tarvik', 'stats', 'modem.ini')).values()
    return sum(rx for rx, _ in months), sum(tx for _, tx in months)


def test_packaged_service_works_confined_and_a_restart_counts_only_new_traffic(world, package):
    deb, root = package
    state = os.path.join(world.directory, 'package-state')
    config = os.path.join(state, 'etc', 'tarvik', 'tarvik.conf')
    scenarios.ethernet(world)
    scenarios.modem(world, bearer_interface='wwan0', profile='Broadband', active=True)

    installed = sandbox(root, state, 'sh', os.path.join(root, 'DEBIAN', 'postinst'), 'configure')
    assert installed.returncode == 0, installed.stderr
    template = config_keys(os.path.join(root, 'usr', 'share', 'tarvik', 'tarvik.conf'))
    assert config_keys(config) == template and stat.S_IMODE(os.stat(config).st_mode) == 0o600
    # What the integrator edits before enabling the service. The broker stays "localhost", which Debian's
    # hosts file gives two addresses: glibc then asks netlink, a family the unit does not allow, to sort them,
    # and tarvik connects to ::1 first (as Debian's mosquitto, the broker listens on both).
    with open(os.path.join(state, 'etc', 'hosts'), 'w') as f:
        f.write('127.0.0.1 localhost\n::1 localhost ip6-localhost ip6-loopback\n')
    world.broker.extra_config = [f'listener {world.broker.port} ::1']
    world.broker.restart()
    with open(config) as f:
        text = f.read()
    for key, value in (('port', world.broker.port), ('usageSec', 1)):
        text = re.sub(rf'^{key}=.*$', f'{key}={value}', text, flags=re.M)
    with open(config, 'w') as f:
        f.write(text)

    def start(counters):
        return world.tarvik(binary=SANDBOX, args=[root, state, 'exec'], write_config=False, config_path=config,
                            private_tmp=True, net_counters={'wwan0': counters})

    client = world.mqtt(subscribe=BASE + '/#')
    tarvik = start((40_000, 1_000))
    connected = tarvik.wait_for_syslog(r'IPC Connected to ')
    assert (connected.facility, connected.ident) == (17, 'tarvik')
    status = open(f'/proc/{tarvik.proc.pid}/status').read()
    for line in ('NoNewPrivs:\t1', 'Seccomp:\t2', 'CapEff:\t0000000000000000', 'CapBnd:\t0000000000000000'):
        assert line in status
    assert os.readlink(f'/proc/{tarvik.proc.pid}/exe') == '/usr/bin/tarvik'

    client.clear()
    client.command('status/get', {})
    assert client.wait_for(BASE + '/status').json['primaryConnection']['connectionName'] == 'Broadband'
    client.command('info/get', {})
    assert client.wait_for(BASE + '/info').json['service']['version'] == field(deb, 'Version')
    client.command('ethernet/config/set', {'interface': 'eth0', 'method': 'manual', 'address': '192.168.1.50',
                                           'netmask': '255.255.255.0', 'gateway': '192.168.1.1'})
    wait_until(lambda: config_keys(config).get('Ethernet/address') == '192.168.1.50', 10, 'the set in the file')
    rewritten = config_keys(config)
    assert set(rewritten) >= set(template) and rewritten['Mqtt/port'] == str(world.broker.port)
    assert stat.S_IMODE(os.stat(config).st_mode) == 0o600

    wait_until(lambda: counted(state) == (40_000, 1_000), 15, f'the first reading counted ({counted(state)})')
    snapshot = tarvik.tmp_file('modem-snapshot.ini')
    wait_until(lambda: config_keys(snapshot).get('General/rxbytes') == '40000' if os.path.exists(snapshot) else None,
               15, 'the snapshot in /tmp')
    tarvik.stop()

    # A restart of the service: the machine's /tmp still holds the snapshot.
    tarvik = start((65_000, 3_000))
    wait_until(lambda: counted(state) == (65_000, 3_000), 15, f'only the new traffic counted ({counted(state)})')
    tarvik.stop()

    postrm = os.path.join(root, 'DEBIAN', 'postrm')
    assert sandbox(root, state, 'sh', postrm, 'remove').returncode == 0
    assert os.path.exists(config) and counted(state) == (65_000, 3_000)
    assert sandbox(root, state, 'sh', postrm, 'purge').returncode == 0
    assert not os.path.exists(os.path.dirname(config))
    assert not os.path.exists(os.path.join(state, 'var-lib', 'tarvik'))
