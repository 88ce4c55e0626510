#!/usr/bin/python3
'''Fault soak: tarvik in the demo world through rounds of faults, counting what goes wrong.

    bench/soak.sh [--rounds 30] [--burst 100] [--seed N]

First phase, one tarvik process throughout, each round: the broker restarts; NetworkManager
restarts and comes back with the devices, profiles and active connections it had (as the daemon
restores them); ModemManager restarts and announces the modem again. After each restart one
signal change must give exactly one "modem/signal" and one NetworkManager state change exactly
one "status". A burst of malformed and oversized commands must each be answered on "error" and
leave the configuration file as it was.

Second phase, each round: tarvik is killed with SIGKILL inside a write of its configuration (a
few set commands queued), started again, killed inside a write of its statistics
(Modem/usageSec=1) and started again. After each kill the configuration file must hold every key
tarvik writes, each group as one command left it, and ./stats/modem.ini every month with both
counters, no total going down.

After every round of both phases each retained topic must be on the broker.
'''

import argparse
import contextlib
import os
import random
import re
import signal
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(SOURCE, 'world'))

import scenarios  # noqa: E402
from world import MqttClient, World, config_keys, wait_until  # noqa: E402
from bench import vm_rss_kib  # noqa: E402

RETAINED = ('status', 'info', 'ethernet/state', 'wifi/state', 'modem/state', 'ethernet/config', 'wifi/config',
            'modem/config', 'wifi/aps', 'wifi/networks', 'modem/signal', 'modem/stats')
PROFILES = ('Ethernet', 'HomeNet', 'Broadband')
DEVICE_IFACE = 'org.freedesktop.NetworkManager.Device'
ACTIVE_IFACE = 'org.freedesktop.NetworkManager.Connection.Active'
WAIT = 20

# What the set commands of the second phase send, in turn; a key left out is written empty.
ETHERNET_SETS = ({'interface': 'eth0', 'method': 'manual', 'address': '192.168.1.50', 'netmask': '255.255.255.0',
                  'gateway': '192.168.1.1', 'dns0': '192.168.1.1'},
                 {'interface': 'eth0', 'method': 'auto'})
MODEM_SETS = ({'apn': 'internet', 'pin': '1234', 'method': 'auto'},
              {'apn': 'internet.example', 'username': 'soak', 'method': 'auto'})
# The file's keys for the fields of each set command.
FILE_KEYS = {
    'Ethernet': {'method': 'method', 'address': 'address', 'netmask': 'mask', 'gateway': 'gateway', 'dns0': 'dns0',
                 'dns1': 'dns1'},
    'Modem': {'apn': 'apn', 'username': 'username', 'password': 'password', 'networkId': 'network_id', 'pin': 'pin',
              'method': 'method', 'address': 'address', 'netmask': 'netmask', 'gateway': 'gateway', 'dns0': 'dns0',
              'dns1': 'dns1'},
}


def group_values(keys, group):
    return {name: keys.get(f'{group}/{name}', '') for name in FILE_KEYS[group].values()}


def sent_values(command, group):
    return {name: command.get(field, '') for field, name in FILE_KEYS[group].items()}


def hostile_commands(rng, count):
    '''(command topic relative to the base, payload) pairs, each of which must be answered on "error".'''
    forms = [
        lambda: ('ethernet/state/get', b'{"interface": '),
        lambda: ('wifi/state/get', b'\xff' + rng.randbytes(rng.randrange(1, 200))),
        lambda: ('ethernet/state/get', b'{"interface": "' + b'x' * rng.randrange(4100, 8000) + b'"}'),
        lambda: ('modem/state/get', b'[' * 3000),
        lambda: ('ünïcödé [Engine] forged/get', b'{}'),   # the broker drops a client that sends control characters
        lambda: ('z' * rng.randrange(100, 20000) + '/get', b''),
        lambda: ('ethernet/state/get', b'{"interface": "eth9\\n[Engine] FAKE LINE\\u001b[2J\\u0000"}'),
        lambda: ('wifi/config/get', ('{"interface": "%s"}' % ('w' * rng.randrange(16, 3000))).encode()),
        lambda: ('ethernet/config/set', b'{"interface": "eth0", "method": "manual", "address": "300.1.1.1", '
                                        b'"netmask": "255.255.255.0"}'),
        lambda: ('ethernet/config/set', b'{"interface": "eth0", "method": "manual", "address": "10.0.0.1\\n", '
                                        b'"netmask": "255.255.255.0"}'),
        lambda: ('wifi/config/set', b'{"ssid": "HomeNet", "key": "homenet-secret", "method": "manual", '
                                    b'"address": "192.168.2.9", "netmask": "255.0.255.0"}'),
        lambda: ('modem/config/set', b'{"apn": "internet", "method": "auto", "gateway": "::1"}'),
    ]
    commands = [rng.choice(forms)() for _ in range(count - 1)]
    # One message of a megabyte in every burst: refused unread.
    commands.insert(rng.randrange(count), ('status/get', b'{"pad": "' + b'm' * (1 << 20) + b'"}'))
    return commands


def stats_months(path):
    '''{month: (rxbytes, txbytes)}, or the reason why the file is damaged.'''
    months, group = {}, None
    with open(path, 'rb') as f:
        text = f.read().decode('ascii')
    for line in text.splitlines():
        if line.startswith('['):
            group = line[1:-1]
            if not re.fullmatch(r'\[\d{4}-\d\d\]', line) or group in months:
                return f'bad group {line!r}'
            months[group] = {}
        elif line:
            name, _, value = line.partition('=')
            if group is None or name not in ('rxbytes', 'txbytes') or not value.isdigit():
                return f'bad line {line!r}'
            months[group][name] = int(value)
    if any(set(values) != {'rxbytes', 'txbytes'} for values in months.values()):
        return f'a month without both counters: {months}'
    return {month: (v['rxbytes'], v['txbytes']) for month, v in months.items()}


class Soak:
    def __init__(self, options):
        self.options = options
        self.rng = random.Random(options.seed)
        self.world = World(service_logs=False)
        # The bursts must reach tarvik whole, not meet the broker's default queue limit.
        self.world.broker.extra_config = ['max_queued_messages 0', 'max_inflight_messages 0']
        self.built = None
        self.tarvik = None
        self.counters = [1000, 500]
        self.done = dict(broker=0, networkmanager=0, modemmanager=0, hostile=0, kill_config=0, kill_stats=0)
        self.problems = dict(unanswered=0, changed_by_refused=0, lost=0, doubled=0, damaged=0, exits=0, failed_steps=0)
        self.checks = dict(retained=0, doubled=0, files=0)
        self.notes = []
        self.reconnects = []
        self.rss = {}
        self.config_keys = None
        self.initial_keys = None
        self.leftovers = []
        self.inside_writes = {}
        self.totals = {}
        self.began = time.monotonic()

    # ------------------------------------------------------------ tarvik

    def start_tarvik(self, first=False):
        config = dict(scenarios.CONFIGS['demo'], Modem={'usageSec': 1}) if first else None
        self.tarvik = self.world.tarvik(config=config, write_config=first, private_tmp=True,
                                        net_counters={'wwan0': tuple(self.counters)},
                                        args=['-f', '{config}', '-e', '-v', '2'])
        self.tarvik.wait_for_log(r'\[Engine\] Reloading all devices and connections\.$', timeout=WAIT)
        self.settle()

    def settle(self):
        '''Every device connected, the modem counting, everything tarvik published has arrived.'''
        for device in (self.built.ethernet.device, self.built.wifi.device, self.built.modem.device):
            self.world.nm.wait_device_state(device, 100, timeout=WAIT)
        mark = len(self.tarvik.log_lines)
        wait_until(lambda: any('Publishing Data usage statistics' in line for line in self.tarvik.log_lines[mark:]),
                   WAIT, 'a data-usage reading')
        with self.client() as client:
            client.sync(WAIT)

    @contextlib.contextmanager
    def client(self, subscribe=True):
        '''A client of its own for one step, disconnected and dropped afterwards: a client kept alive keeps
        two descriptors, and past 1024 of them the MQTT client's select() fails.'''
        client = MqttClient(self.world.broker.port, base=self.world.base)
        client.connect()
        try:
            if subscribe:
                client.subscribe(self.world.base + '/#')
            yield client
        finally:
            client.disconnect()

    def wait_lines(self, mark, patterns):
        '''Each pattern matches a log line after the mark, in any order.'''
        regexes = [re.compile(p) for p in patterns]
        wait_until(lambda: all(any(r.search(line) for line in self.tarvik.log_lines[mark:]) for r in regexes),
                   WAIT, ' and '.join(patterns))

    def step(self, name, action):
        '''Runs one step; a step that fails is counted and the soak goes on with tarvik running.'''
        try:
            action()
            return True
        except Exception as error:  # noqa: BLE001 - every failure is counted, none ends the soak
            self.notes.append(f'{name}: {str(error).splitlines()[0][:200]}')
            if not self.tarvik.running:
                self.problems['exits'] += 1
                self.notes.append(f'{name}: tarvik exited with {self.tarvik.proc.returncode}')
                self.tarvik.stop()
                self.start_tarvik()
            else:
                self.problems['failed_steps'] += 1
            return False

    # ------------------------------------------------------------ the world's daemons

    def restart_broker(self):
        self.world.broker.restart()
        back = time.monotonic()
        self.tarvik.wait_for_log(r'\[Engine\] IPC Connected to ', timeout=WAIT)
        self.reconnects.append(time.monotonic() - back)
        self.tarvik.wait_for_log(r'\[Engine\] Reloading all devices and connections\.$', timeout=WAIT)
        self.settle()
        self.done['broker'] += 1

    def restart_networkmanager(self):
        '''The daemon comes back with what it had: profiles, devices, active connections.'''
        nm = self.world.nm
        profiles = {path: (nm.connection_settings(path), nm.connection_secrets(path)) for path in nm.connections()}
        active = {}
        for device in (self.built.ethernet.device, self.built.wifi.device, self.built.modem.device):
            connection = nm.active_connection(device)
            if connection != '/':
                active[nm.get(device, DEVICE_IFACE, 'Interface')] = nm.get(connection, ACTIVE_IFACE, 'Connection')
        mark = len(self.tarvik.log_lines)
        self.world.restart_networkmanager()
        nm = self.world.nm
        renamed = {path: nm.add_connection(settings, secrets) for path, (settings, secrets) in profiles.items()}
        nm.add_device('lo', 32, state=10, udi='/sys/devices/virtual/net/lo')
        ethernet = scenarios.ethernet(self.world, profile=None)
        wifi = scenarios.wifi(self.world)
        modem = nm.add_modem('cdc-wdm0', modem=self.built.modem.modem, ip_iface='wwan0')
        for iface, device in (('eth0', ethernet.device), ('wlan0', wifi.device), ('cdc-wdm0', modem)):
            if iface in active:
                nm.activate(renamed[active[iface]], device, instant=True)
        self.built.ethernet.device, self.built.wifi.device, self.built.modem.device = ethernet.device, wifi.device, modem
        self.wait_lines(mark, [r'NetworkManager left the system bus', r'NetworkManager is on the system bus'] +
                        [rf"No update required for connection '{name}'" for name in PROFILES])
        self.settle()
        self.done['networkmanager'] += 1

    def restart_modemmanager(self):
        mark = len(self.tarvik.log_lines)
        self.world.restart_modemmanager()
        self.wait_lines(mark, [r'ModemManager left the system bus', r'ModemManager is on the system bus'])
        self.built.modem.modem = self.world.mm.add_modem('gsm', bearer_interface='wwan0', signal=67)
        self.wait_lines(mark, [r'ModemManager announced the modem of cdc-wdm0',
                               r"No update required for connection 'Broadband'"])
        self.settle()
        self.done['modemmanager'] += 1

    # ------------------------------------------------------------ what is published

    def count_doubles(self):
        '''One signal change and one NetworkManager state change, each published exactly once.'''
        quality = self.world.mm.get(self.built.modem.modem, 'org.freedesktop.ModemManager1.Modem', 'SignalQuality')[0]
        quality = 30 + (quality - 29) % 60
        state = 60 if self.world.nm.manager_property('State') != 60 else 70
        changes = (('modem/signal', lambda: self.world.mm.set_signal(self.built.modem.modem, quality),
                    lambda doc: doc.get('quality') == quality),
                   ('status', lambda: self.world.nm.set_status(state), lambda doc: doc.get('state') == state // 10))
        with self.client() as client:
            client.sync(WAIT)
            for topic, change, matches in changes:
                mark = len(client.messages())
                change()
                client.wait_for(client.topic(topic), timeout=WAIT,
                                predicate=lambda m: not m.retain and matches(m.json))
                client.sync(WAIT)
                seen = [m for m in client.messages()[mark:] if m.topic == client.topic(topic) and not m.retain]
                doubled = sum(1 for m in seen if matches(m.json)) - 1
                self.checks['doubled'] += 1
                if doubled:
                    self.problems['doubled'] += doubled
                    self.notes.append(f'{topic} published {doubled + 1} times for one change')

    def count_lost_retained(self):
        with self.client() as client:
            try:
                wait_until(lambda: all(client.count(client.topic(t)) for t in RETAINED), WAIT, 'every retained topic')
            except Exception:  # noqa: BLE001 - counted below
                pass
            lost = [t for t in RETAINED if not client.count(client.topic(t))]
        self.checks['retained'] += 1
        if lost:
            self.problems['lost'] += len(lost)
            self.notes.append(f'retained documents missing: {lost}')

    def hostile_burst(self):
        before = self.config_text()
        commands = hostile_commands(self.rng, self.options.burst)
        with self.client(subscribe=False) as client:
            client.subscribe(client.topic('error'), qos=0)
            client.subscribe(client.topic('info'), qos=0)
            for index, (name, payload) in enumerate(commands):
                client.client.publish(client.topic(name), payload, qos=index % 2)
            try:
                wait_until(lambda: client.count(client.topic('error')) >= len(commands), WAIT, 'an error for each')
            except Exception:  # noqa: BLE001 - counted below
                pass
            client.sync(WAIT)
            unanswered = len(commands) - client.count(client.topic('error'))
        self.done['hostile'] += len(commands)
        if unanswered:
            self.problems['unanswered'] += unanswered
            self.notes.append(f'{unanswered} of {len(commands)} hostile commands unanswered')
        if self.config_text() != before:
            self.problems['changed_by_refused'] += 1
            self.notes.append('a refused command changed the configuration file')

    # ------------------------------------------------------------ files

    def config_path(self):
        return self.tarvik.config_path

    def stats_path(self):
        return os.path.join(self.world.directory, 'stats', 'modem.ini')

    def config_text(self):
        with open(self.config_path(), 'rb') as f:
            return f.read()

    def damaged_files(self):
        '''Why the files are damaged, or None.'''
        self.checks['files'] += 1
        try:
            keys = config_keys(self.config_path())
        except Exception as error:  # noqa: BLE001
            return f'configuration unreadable: {error}'
        if set(keys) != self.config_keys:
            return f'configuration keys: {len(keys)}, missing {sorted(self.config_keys - set(keys))}'
        # Each group as one command (or the first write) left it, never a mixture.
        for group, sets in (('Ethernet', ETHERNET_SETS), ('Modem', MODEM_SETS)):
            allowed = [sent_values(command, group) for command in sets] + [group_values(self.initial_keys, group)]
            if group_values(keys, group) not in allowed:
                return f'configuration {group} is none of the commands sent: {group_values(keys, group)}'
        months = stats_months(self.stats_path())
        if isinstance(months, str):
            return f'statistics: {months}'
        for month, totals in self.totals.items():
            if month not in months or any(a < b for a, b in zip(months[month], totals)):
                return f'statistics went back: {month} {totals} -> {months.get(month)}'
        self.totals = months
        return None

    def check_files(self, what):
        damage = self.damaged_files()
        if damage:
            self.problems['damaged'] += 1
            self.notes.append(f'after kill -9 during {what}: {damage}')

    def lock_holder(self, path):
        '''The pid in the file's lock file: QSettings writes under it, and a kill leaves it behind.'''
        try:
            with open(path + '.lock') as f:
                return int(f.readline())
        except (OSError, ValueError):
            return None

    def kill_inside_write(self, path, timeout):
        '''SIGKILL as soon as tarvik holds the file's lock (a write takes about a millisecond, so the lock
        is polled without pause), at a random point of the write; at the timeout in any case. Counts the
        kills that landed before the write ended.'''
        pid = self.tarvik.proc.pid
        until = time.monotonic() + timeout
        while self.lock_holder(path) != pid and time.monotonic() < until:
            pass
        into = time.monotonic() + self.rng.uniform(0, 0.001)
        while time.monotonic() < into:
            pass
        self.tarvik.stop(sig=signal.SIGKILL)
        # Hundreds of restarts: the pipes of each ended process go now, not when the soak ends.
        self.tarvik.proc.stdout.close()
        self.tarvik.proc.stderr.close()
        self.inside_writes[path] = self.inside_writes.get(path, 0) + (self.lock_holder(path) == pid)

    def kill_during_config_writes(self, round_index):
        with self.client(subscribe=False) as client:
            for index in range(round_index, round_index + self.rng.randrange(1, 10)):
                client.command('ethernet/config/set', ETHERNET_SETS[index % 2], qos=0)
                client.command('modem/config/set', MODEM_SETS[index % 2], qos=0)
            self.kill_inside_write(self.config_path(), timeout=5)
        self.done['kill_config'] += 1
        self.check_files('configuration writes')
        self.start_tarvik()

    def kill_during_statistics_writes(self):
        self.counters = [c + self.rng.randrange(1, 5_000_000) for c in self.counters]
        self.tarvik.set_counters('wwan0', *self.counters)
        self.kill_inside_write(self.stats_path(), timeout=3)
        self.done['kill_stats'] += 1
        self.check_files('statistics writes')
        self.start_tarvik()

    # ------------------------------------------------------------ the soak

    def first_configuration_write(self):
        '''A set command that changes nothing makes tarvik write every key it has.'''
        with self.client() as client:
            client.command('wifi/config/set', {'ssid': 'HomeNet', 'key': scenarios.DEMO_WIFI_KEY, 'method': 'auto'})
            wait_until(lambda: len(config_keys(self.config_path())) > 20, WAIT, 'tarvik to write its configuration')
            client.sync(WAIT)
        self.initial_keys = config_keys(self.config_path())
        self.config_keys = set(self.initial_keys)

    def run(self):
        rounds = self.options.rounds
        self.world.start()
        try:
            self.built = scenarios.demo(self.world)
            self.start_tarvik(first=True)
            self.first_configuration_write()
            self.rss['start'] = vm_rss_kib(self.tarvik.proc.pid)
            pid = self.tarvik.proc.pid
            for index in range(rounds):
                for name, restart in (('broker', self.restart_broker),
                                      ('NetworkManager', self.restart_networkmanager),
                                      ('ModemManager', self.restart_modemmanager)):
                    if self.step(f'round {index + 1}: {name} restart', restart):
                        self.step(f'round {index + 1}: after the {name} restart', self.count_doubles)
                self.step(f'round {index + 1}: hostile commands', self.hostile_burst)
                self.step(f'round {index + 1}: retained documents', self.count_lost_retained)
                rss = vm_rss_kib(self.tarvik.proc.pid)
                self.rss.setdefault('round 1', rss)
                print(f'soak: daemons and hostile input, round {index + 1}/{rounds}, VmRSS {rss / 1024:.1f} MB',
                      flush=True)
            # Idle again: the MQTT client hands burst memory back on its quiet ticks, one a second.
            time.sleep(4)
            if self.tarvik.proc.pid == pid:
                self.rss['end'] = vm_rss_kib(pid)

            for index in range(rounds):
                self.step(f'round {index + 1}: kill -9 during configuration writes',
                          lambda: self.kill_during_config_writes(index))
                self.step(f'round {index + 1}: kill -9 during statistics writes', self.kill_during_statistics_writes)
                self.step(f'round {index + 1}: retained documents', self.count_lost_retained)
                print(f'soak: kill -9 during writes, round {index + 1}/{rounds}', flush=True)
            # A lock file is left by a kill inside a write and goes at the next one; anything else is litter.
            leftovers = [name for name in os.listdir(self.world.directory)
                         if name.startswith('tarvik.conf.') and not name.endswith('.lock')]
            leftovers += [name for name in os.listdir(os.path.dirname(self.stats_path()))
                          if name not in ('modem.ini', 'modem.ini.lock')]
            self.leftovers = leftovers
            if leftovers:
                self.notes.append(f'left beside the files: {leftovers}')
        finally:
            self.world.stop()
        return self.report()

    def report(self):
        d, p, c = self.done, self.problems, self.checks
        reconnect = (f'reconnect {min(self.reconnects):.2f}-{max(self.reconnects):.2f} s' if self.reconnects else '')
        rows = [
            ('broker restarts', d['broker'], reconnect),
            ('NetworkManager restarts', d['networkmanager'], ''),
            ('ModemManager restarts', d['modemmanager'], ''),
            ('malformed and oversized commands', d['hostile'], f"{p['unanswered']} unanswered, "
                                                               f"{p['changed_by_refused']} changed the file"),
            ('kill -9 during configuration writes', d['kill_config'],
             f"{self.inside_writes.get(self.config_path(), 0)} inside a write (its lock file left)"),
            ('kill -9 during statistics writes', d['kill_stats'],
             f"{self.inside_writes.get(self.stats_path(), 0)} inside a write (its lock file left)"),
            ('retained-topic checks (12 topics)', c['retained'], f"{p['lost']} documents lost"),
            ('single-publication checks', c['doubled'], f"{p['doubled']} doubled"),
            ('file checks after kill -9', c['files'], f"{p['damaged']} damaged, "
                                                      f"{len(self.leftovers)} other files left"),
            ('tarvik exits / other failed steps', '', f"{p['exits']} / {p['failed_steps']}"),
        ]
        print(f'\nfault soak: {self.options.rounds} rounds, seed {self.options.seed}, '
              f'{(time.monotonic() - self.began) / 60:.1f} min')
        for name, count, result in rows:
            print(f'  {name:<38} {count!s:>6}   {result}')
        start, first, end = self.rss.get('start'), self.rss.get('round 1'), self.rss.get('end')
        if start and first and end:
            print(f'  VmRSS of one tarvik through the first phase: {start / 1024:.1f} MB after start, '
                  f'{first / 1024:.1f} MB after round 1, {end / 1024:.1f} MB after {self.options.rounds} rounds')
        for note in self.notes:
            print(f'  - {note}')
        failed = p['unanswered'] + p['changed_by_refused'] + p['lost'] + p['doubled'] + p['damaged'] \
            + p['exits'] + p['failed_steps']
        print('no failures' if not failed else f'{failed} FAILURES')
        return 1 if failed else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument('--rounds', type=int, default=30, help='rounds of each phase (default 30)')
    parser.add_argument('--burst', type=int, default=100, help='hostile commands per round (default 100)')
    parser.add_argument('--seed', type=int, default=int(time.time()), help='random seed (default: the time)')
    return Soak(parser.parse_args()).run()


if __name__ == '__main__':
    sys.exit(main())
