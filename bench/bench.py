#!/usr/bin/python3
'''Measures tarvik against the simulated world: command round trip (compared with a
minimal echo responder on the same broker), throughput, and resident memory.

    bench/run.sh [--requests 2000] [--burst 20000]
'''

import argparse
import os
import queue
import statistics
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(SOURCE, 'world'))

import scenarios  # noqa: E402
from world import MqttClient, World  # noqa: E402

ECHO_BASE = 'bench/echo'


def percentile(samples, fraction):
    ordered = sorted(samples)
    index = min(len(ordered) - 1, max(0, int(round(fraction * len(ordered))) - 1))
    return ordered[index]


def vm_rss_kib(pid):
    with open(f'/proc/{pid}/status') as f:
        for line in f:
            if line.startswith('VmRSS:'):
                return int(line.split()[1])
    raise RuntimeError(f'no VmRSS for {pid}')


class Exchange:
    '''Request on one topic, reply on another, one at a time; the reply's arrival time is taken
    in the client's network thread so that queueing in this thread does not count.'''

    def __init__(self, port, request_topic, reply_topic):
        self.arrivals = queue.Queue()
        self.client = MqttClient(port, base='')
        self.client.connect()
        self.request_topic = request_topic
        self.reply_topic = reply_topic

        # Live replies arrive with retain 0; the retained copy sent on subscription does not count.
        def on_message(client, userdata, msg):
            if msg.topic == reply_topic and not msg.retain:
                self.arrivals.put(time.perf_counter())
        self.client.client.on_message = on_message
        self.client.subscribe(reply_topic, qos=2)

    def round_trips(self, count, timeout=5.0):
        samples = []
        for _ in range(count):
            sent = time.perf_counter()
            self.client.client.publish(self.request_topic, b'{}', qos=0)
            samples.append((self.arrivals.get(timeout=timeout) - sent) * 1000.0)
        return samples

    def close(self):
        self.client.disconnect()


def settle(world, client):
    '''tarvik has finished its start-up once the last documents of every device are out.'''
    for topic in ('ethernet/config', 'wifi/networks', 'modem/signal'):
        client.wait_for(f'{world.base}/{topic}', timeout=30)


def warm_round_trips(port, base, requests):
    '''status/get round trips after 50 that warm the path up.'''
    exchange = Exchange(port, f'{base}/status/get', f'{base}/status')
    exchange.round_trips(50)
    samples = exchange.round_trips(requests)
    exchange.close()
    return samples


def measure_round_trip(world, requests):
    tarvik_ms = warm_round_trips(world.broker.port, world.base, requests)

    responder = os.path.join(os.environ.get('TARVIK_BUILD_DIR', os.path.join(SOURCE, 'build')), 'echo_responder')
    echo = subprocess.Popen([responder, str(world.broker.port), f'{ECHO_BASE}/status/get', f'{ECHO_BASE}/status'],
                            stdout=subprocess.PIPE, text=True)
    try:
        if echo.stdout.readline().strip() != 'ready':
            raise RuntimeError('echo responder did not start')
        echo_ms = warm_round_trips(world.broker.port, ECHO_BASE, requests)
    finally:
        echo.terminate()
        echo.wait(timeout=5)
    return tarvik_ms, echo_ms


def measure_beside_slow_secrets(world, requests, secrets_seconds=0.2):
    '''status/get round trips while a second client asks for the Wi-Fi configuration over and over, each
    answer waiting for secrets the daemon hands out late.'''
    world.nm.delay('GetSecrets', secrets_seconds)
    stop = threading.Event()
    asked = [0]

    def ask_for_configuration():
        client = Exchange(world.broker.port, f'{world.base}/wifi/config/get', f'{world.base}/wifi/config')
        while not stop.is_set():
            client.round_trips(1, timeout=10)
            asked[0] += 1
        client.close()
    loop = threading.Thread(target=ask_for_configuration, daemon=True)
    loop.start()
    try:
        samples = warm_round_trips(world.broker.port, world.base, requests)
    finally:
        stop.set()
        loop.join(15)
        world.nm.clear_delays()
    return samples, asked[0]


def measure_throughput(world, burst, quiet_seconds=10.0):
    client = MqttClient(world.broker.port, base='')
    client.connect()
    arrivals = queue.Queue()
    reply_topic = f'{world.base}/info'

    def on_message(c, userdata, msg):
        if msg.topic == reply_topic and not msg.retain:
            arrivals.put(time.perf_counter())
    client.client.on_message = on_message
    client.subscribe(reply_topic, qos=2)

    start = time.perf_counter()
    for _ in range(burst):
        client.client.publish(f'{world.base}/info/get', b'{}', qos=0)
    received, last = 0, start
    while received < burst:
        try:
            last = arrivals.get(timeout=quiet_seconds)
            received += 1
        except queue.Empty:
            break
    client.disconnect()
    return received, burst - received, received / (last - start) if last > start else 0.0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument('--requests', type=int, default=2000, help='round trips measured (default 2000)')
    parser.add_argument('--burst', type=int, default=20000, help='info/get requests of the throughput run')
    options = parser.parse_args()

    world = World(service_logs=False)
    # The burst must measure tarvik, not the broker's default limit of 1000 queued messages a client.
    world.broker.extra_config = ['max_queued_messages 0', 'max_inflight_messages 0']
    try:
        world.start()
        scenarios.demo(world)
        client = world.mqtt(subscribe=f'{world.base}/#')
        # Verbosity 0 and a syslog socket of our own: no console writes are measured.
        tarvik = world.tarvik(config=scenarios.CONFIGS.get('demo', {}), args=['-f', '{config}', '-v', '0'])
        settle(world, client)
        client.disconnect()
        rss_idle = vm_rss_kib(tarvik.proc.pid)

        tarvik_ms, echo_ms = measure_round_trip(world, options.requests)
        slow_ms, configurations = measure_beside_slow_secrets(world, options.requests)
        received, lost, rate = measure_throughput(world, options.burst)
        # Idle again: the client hands burst memory back on its quiet housekeeping ticks (one a second).
        time.sleep(4)
        rss_after = vm_rss_kib(tarvik.proc.pid)
    finally:
        world.stop()

    p50, p99 = percentile(tarvik_ms, 0.50), percentile(tarvik_ms, 0.99)
    e50, e99 = percentile(echo_ms, 0.50), percentile(echo_ms, 0.99)
    print('tarvik benchmark (verbosity 0, syslog to a socket of the bench, TCP_NODELAY everywhere)')
    print(f'round trip status/get -> status over {options.requests} requests:')
    print(f'  tarvik         p50 {p50:7.3f} ms   p99 {p99:7.3f} ms   mean {statistics.mean(tarvik_ms):7.3f} ms')
    print(f'  echo responder p50 {e50:7.3f} ms   p99 {e99:7.3f} ms   mean {statistics.mean(echo_ms):7.3f} ms')
    print(f'  ratio          p50 {p50 / e50:7.2f}      p99 {p99 / e99:7.2f}      (targets: <= 1.5, <= 2.0)')
    s50, s99 = percentile(slow_ms, 0.50), percentile(slow_ms, 0.99)
    print(f'beside {configurations} wifi/config/get whose secrets take 200 ms each:')
    print(f'  tarvik         p50 {s50:7.3f} ms   p99 {s99:7.3f} ms   ratio of p99 to idle {s99 / p99:5.2f} '
          f'(target: <= 1.5)')
    print(f'throughput: {options.burst} info/get sent, {received} replies, {lost} lost, {rate:.0f} replies/s '
          f'(target: 0 lost)')
    print(f'memory: VmRSS idle {rss_idle / 1024:.1f} MB, after the burst {rss_after / 1024:.1f} MB, '
          f'growth {(rss_after - rss_idle) / 1024:.2f} MB (targets: <= 16 MB, growth <= 1 MB)')
    ok = p50 / e50 <= 1.5 and p99 / e99 <= 2.0 and s99 / p99 <= 1.5 and lost == 0 and rss_idle <= 16 * 1024 \
        and rss_after - rss_idle <= 1024
    print('all targets met' if ok else 'TARGETS MISSED')
    return 0 if ok else 1


if __name__ == '__main__':
    sys.exit(main())
