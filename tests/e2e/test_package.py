"""The Debian package as a user installs it: lintian, then a Debian 12 system booted with its own systemd
(bootedsystem.py) where the .deb is installed with apt and the service runs under its hardened unit beside the
real NetworkManager, mosquitto and the simulated ModemManager. The tests run in order on one booted system."""

import glob
import os
import re
import shutil
import socket
import subprocess
import time

import pytest

import bootedsystem
from bootedsystem import CARRIER_PORT, DATA_PORT, journal_cursor, wait_for_journal
from contract import off_contract
from engineflow import usage_totals
from mqttclient import MqttClient
from services import MM_BUS, ModemManager
from world import config_keys, wait_until

BASE = 'tolv/network'
CONFIG = '/etc/tarvik/tarvik.conf'
STATS = '/var/lib/tarvik/stats/modem.ini'
MODEM = 'cdc-wdm0'
RESTART_SEC = 10


@pytest.fixture(scope='module')
def deb():
    debs = glob.glob(os.path.join(os.environ.get('TARVIK_PACKAGE_DIR', '-'), 'tarvik_*.deb'))
    if len(debs) != 1 or os.geteuid() != 0:
        pytest.skip('needs root and the package built by CTest (TARVIK_PACKAGE_DIR)')
    return debs[0]


def field(deb, name):
    return subprocess.run(['dpkg-deb', '-f', deb, name], check=True, capture_output=True, text=True).stdout.strip()


@pytest.fixture(scope='module')
def system(deb, request):
    try:
        booted, skipped = bootedsystem.booted(deb), None
    except bootedsystem.Unavailable as reason:
        booted, skipped = None, str(reason)
    # Whatever the outcome, the run's log names what was booted.
    with request.config.pluginmanager.get_plugin('capturemanager').global_and_fixture_disabled():
        if booted:
            systemd = booted.run('systemctl', '--version').stdout.splitlines()[0]
            nm = booted.run('NetworkManager', '--version').stdout.strip()
            print(f'\nbooted: {systemd}, NetworkManager {nm}')
        else:
            print(f'\nbooted: skipped, {skipped}')
    if not booted:
        pytest.skip(skipped)
    yield booted
    booted.shutdown()


@pytest.fixture(scope='module')
def client(system):
    with system.network():
        client = MqttClient(1883, base=BASE)
        client.connect()
    client.subscribe(BASE + '/#', 2)
    yield client
    client.disconnect()


def install(system, deb):
    shutil.copy(deb, system.path('/var/tmp/'))
    system.run('apt-get', 'install', '-y', '-q', '--no-install-recommends', '/var/tmp/' + os.path.basename(deb))


def answered(client, command, topic, timeout=10, payload=None):
    client.clear()
    client.command(command, {} if payload is None else payload)
    return client.wait_for(client.topic(topic), timeout).json


def started_within(system, seconds, action):
    """Runs the systemctl action on tarvik, whose broker session must be up within the seconds."""
    cursor = journal_cursor(system)
    began = time.monotonic()
    system.systemctl(action, 'tarvik')
    wait_for_journal(system, r'\[IPC\] Connected\.$', cursor, timeout=seconds + 10)
    took = time.monotonic() - began
    assert took < seconds, f'connected {took:.2f} s after "{action}"'


def test_lintian_finds_no_error(deb, tmp_path):
    # lintian leaves files in $TMPDIR.
    lintian = subprocess.run(['lintian', deb], capture_output=True, text=True,
                             env=dict(os.environ, TMPDIR=str(tmp_path)))
    assert not [line for line in lintian.stdout.splitlines() if line.startswith('E:')], lintian.stdout
    assert re.search(r'libqt5core5a \(>= [\d.]+\)', field(deb, 'Depends'))   # from the shared libraries


def test_installed_it_waits_to_be_enabled_then_answers(system, deb, client):
    install(system, deb)
    assert system.systemctl('is-active', 'tarvik', check=False) == 'inactive'
    assert system.systemctl('is-enabled', 'tarvik', check=False) == 'disabled'
    assert oct(os.stat(system.path(CONFIG)).st_mode & 0o777) == '0o600'
    assert system.run('systemd-analyze', 'verify', '--man=no', 'tarvik.service', check=False).stderr == ''
    security = system.run('systemd-analyze', 'security', '--no-pager', 'tarvik.service', check=False).stdout
    exposure = re.search(r'Overall exposure level for tarvik\.service: ([\d.]+) (\w+)', security)
    assert float(exposure.group(1)) <= 2.0 and exposure.group(2) == 'OK', security

    # A minimal system has no hosts file: the broker "localhost" does not resolve, and tarvik says so.
    system.run('sed', '-i', 's/^usageSec=.*/usageSec=1/', CONFIG)
    cursor = journal_cursor(system)
    system.systemctl('enable', '--now', 'tarvik')
    wait_for_journal(system, r"\[IPC\] ERROR: Could not resolve broker host 'localhost': ", cursor)

    system.write('/etc/hosts', '127.0.0.1 localhost\n')
    started_within(system, 2, 'restart')
    assert answered(client, 'status/get', 'status')['hostname']
    assert answered(client, 'info/get', 'info')['service']['version'] == field(deb, 'Version')
    assert answered(client, 'no/such/get', 'error', payload=off_contract({}))['error'] == 'Unsupported command'
    local1 = system.run('journalctl', '-o', 'cat', 'SYSLOG_IDENTIFIER=tarvik', 'SYSLOG_FACILITY=17').stdout
    assert 'IPC Connected to localhost' in local1


def test_the_modem_is_provisioned_and_counted_under_the_hardened_unit(system, client):
    system.systemctl('start', 'simulated-modemmanager')
    ModemManager(system.bus(owned=MM_BUS)).add_modem('gsm', bearer_interface=DATA_PORT, addresses='10.64.0.2')
    device_state = ('nmcli', '-g', 'GENERAL.STATE', 'device', 'show', MODEM)
    wait_until(lambda: system.run(*device_state, check=False).stdout.startswith('100'), 20, 'the modem connected')

    client.command('modem/config/set', {'interface': MODEM, 'apn': 'internet.other', 'method': 'auto'})
    wait_until(lambda: config_keys(system.path(CONFIG)).get('Modem/apn') == 'internet.other', 10,
               'the set in the file')
    assert oct(os.stat(system.path(CONFIG)).st_mode & 0o777) == '0o600'
    profile_apn = ('nmcli', '-g', 'gsm.apn', 'connection', 'show', 'Broadband')
    wait_until(lambda: system.run(*profile_apn).stdout.strip() == 'internet.other', 10, 'the profile changed')
    wait_until(lambda: system.run(*device_state, check=False).stdout.startswith('100'), 20, 'the modem back')
    wait_until(lambda: os.path.exists(system.path(STATS)), 10, 'the statistics written')

    main = system.main_pid()
    writable = [path for path in ('/', '/etc', '/etc/tarvik', '/usr', '/var', '/var/lib/tarvik', '/var/tmp',
                                  '/tmp', '/run', '/run/dbus', '/dev/shm', '/root', '/home', '/opt', '/srv')
                if system.run('nsenter', '-t', str(main), '-m', 'sh', '-c',
                              f'touch {path}/.tarvik-probe && rm {path}/.tarvik-probe', check=False).returncode == 0]
    assert writable == ['/etc/tarvik', '/var/lib/tarvik', '/tmp']
    status = system.run('cat', f'/proc/{main}/status').stdout
    for line in ('NoNewPrivs:\t1', 'Seccomp:\t2', 'CapEff:\t0000000000000000', 'CapBnd:\t0000000000000000'):
        assert line in status


def counted(system):
    return sum(rx + tx for rx, tx in usage_totals(system.path(STATS)).values())


def kernel_counted(system):
    return sum(int(system.run('cat', f'/sys/class/net/{DATA_PORT}/statistics/{name}').stdout)
               for name in ('rx_bytes', 'tx_bytes'))


def test_restart_stop_and_a_kill_lose_nothing(system, client):
    # Traffic over the data port, counted; a restart then counts only what comes after it (the snapshot in
    # the machine's /tmp outlives the service).
    # (Both ends of the veth are inside: the datagrams leave by the data port to a neighbour of the far end's
    # link address.)
    mac = system.run('cat', f'/sys/class/net/{CARRIER_PORT}/address').stdout.strip()
    system.run('ip', 'neigh', 'replace', '10.64.0.254', 'lladdr', mac, 'dev', DATA_PORT, 'nud', 'permanent')
    with system.network(), socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, DATA_PORT.encode())
        for _ in range(50):
            sock.sendto(b'x' * 1000, ('10.64.0.254', 9))
    wait_until(lambda: counted(system) >= 50_000, 10, 'the traffic counted')
    before, kernel = counted(system), kernel_counted(system)
    pid = system.main_pid()
    started_within(system, 2, 'restart')
    assert system.main_pid() != pid
    written = os.stat(system.path(STATS)).st_mtime_ns
    wait_until(lambda: os.stat(system.path(STATS)).st_mtime_ns != written, 10, 'a reading after the restart')
    assert counted(system) - before <= kernel_counted(system) - kernel
    began = time.monotonic()
    system.systemctl('stop', 'tarvik')
    assert time.monotonic() - began < 2 and system.systemctl('is-active', 'tarvik', check=False) == 'inactive'
    started_within(system, 2, 'start')

    config = config_keys(system.path(CONFIG))
    counted_before = counted(system)
    killed = system.main_pid()
    cursor = journal_cursor(system)
    began = time.monotonic()
    system.systemctl('kill', '--signal=SIGKILL', 'tarvik')
    wait_for_journal(system, r'\[IPC\] Connected\.$', cursor, timeout=RESTART_SEC + 10)
    assert time.monotonic() - began < RESTART_SEC + 2
    assert system.main_pid() not in (0, killed)
    assert config_keys(system.path(CONFIG)) == config
    assert counted(system) >= counted_before


@pytest.mark.parametrize('absent', ['masked', 'not started'])
def test_without_modemmanager_it_answers_at_once(system, client, absent):
    # Measured from a start with ModemManager already gone.
    system.systemctl('stop', 'tarvik')
    system.systemctl('stop', 'simulated-modemmanager')
    if absent == 'masked':
        system.systemctl('mask', 'ModemManager')
    try:
        began = time.monotonic()
        started_within(system, 2, 'start')
        assert answered(client, 'status/get', 'status', timeout=2)
        assert time.monotonic() - began < 2
    finally:
        system.systemctl('unmask', 'ModemManager')


def second_build(deb, directory):
    """The same package under a higher version, as the next release would come."""
    tree = os.path.join(directory, 'tree')
    subprocess.run(['dpkg-deb', '-R', deb, tree], check=True)
    control = os.path.join(tree, 'DEBIAN', 'control')
    with open(control) as f:
        text = f.read()
    with open(control, 'w') as f:
        f.write(re.sub(r'^Version: (.*)$', r'Version: \1+1', text, flags=re.M))
    upgraded = os.path.join(directory, os.path.basename(deb).replace('_amd64', '+1_amd64'))
    subprocess.run(['dpkg-deb', '-b', '--root-owner-group', tree, upgraded], check=True, capture_output=True)
    return upgraded


def test_upgrade_keeps_and_purge_removes_the_configuration_and_statistics(system, deb, tmp_path):
    config = config_keys(system.path(CONFIG))
    stats = usage_totals(system.path(STATS))
    running = system.main_pid()
    install(system, second_build(deb, str(tmp_path)))
    assert system.systemctl('is-active', 'tarvik') == 'active' and system.main_pid() != running
    assert config_keys(system.path(CONFIG)) == config and usage_totals(system.path(STATS)).keys() == stats.keys()

    system.run('apt-get', 'remove', '-y', '-q', 'tarvik')
    assert system.systemctl('is-active', 'tarvik', check=False) != 'active'
    assert config_keys(system.path(CONFIG)) == config and os.path.exists(system.path(STATS))
    system.run('apt-get', 'purge', '-y', '-q', 'tarvik')
    assert not os.path.exists(system.path('/etc/tarvik')) and not os.path.exists(system.path('/var/lib/tarvik'))
