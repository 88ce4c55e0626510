"""First contact: the demo as a new user starts it, from a checkout under /tmp."""

import os
import re
import signal
import subprocess
import tempfile
import threading

import pytest

from world import MqttClient, group_members, kill_group, spawn, wait_until

BANNER = re.compile(r'tarvik demo: broker on 127\.0\.0\.1:(\d+), topic base "(.*)"')
SOURCE_DIR = os.environ.get('TARVIK_SOURCE_DIR') or os.path.abspath(os.path.join(os.path.dirname(__file__), '..', '..'))


def test_demo_runs_from_a_checkout_under_tmp_and_leaves_the_machines_broker_alone(tmp_path):
    build_dir = os.environ.get('TARVIK_BUILD_DIR')
    if os.geteuid() != 0 or not build_dir:
        pytest.skip('the demo hides /tmp from tarvik only when run as root; needs TARVIK_BUILD_DIR')
    # The checkout and its build seen through /tmp, which the demo gives tarvik empty.
    checkout = tempfile.mkdtemp(prefix='tarvik-checkout-', dir='/tmp')
    os.symlink(SOURCE_DIR, os.path.join(checkout, 'src'))
    os.symlink(build_dir, os.path.join(checkout, 'build'))
    # A systemctl that says every service runs and notes what it is asked.
    fake_bin, calls = tmp_path / 'bin', tmp_path / 'systemctl.calls'
    fake_bin.mkdir()
    (fake_bin / 'systemctl').write_text(f'#!/bin/sh\necho "$@" >> {calls}\n')
    (fake_bin / 'systemctl').chmod(0o755)
    env = dict(os.environ, PATH=f'{fake_bin}:{os.environ["PATH"]}', TARVIK_BUILD_DIR=os.path.join(checkout, 'build'))

    demo = spawn([os.path.join(checkout, 'src', 'scripts', 'demo.sh')], env=env, stdin=subprocess.DEVNULL,
                 stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    lines = []
    reader = threading.Thread(target=lambda: lines.extend(l.decode(errors='replace') for l in demo.stdout), daemon=True)
    reader.start()
    try:
        def started():
            assert demo.poll() is None, 'the demo ended:\n' + ''.join(lines[-30:])
            return next((match for match in map(BANNER.search, lines) if match), None)
        banner = wait_until(started, 120, 'the demo banner')
        client = MqttClient(int(banner.group(1)), base=banner.group(2))
        client.connect()
        client.subscribe(banner.group(2) + '/status')
        client.subscribe(banner.group(2) + '/modem/usage')
        client.command('status/get', {})
        assert client.wait_for(banner.group(2) + '/status', timeout=30).json['connectivityStr'] == 'Full', \
            ''.join(lines[-30:])
        # The modem's data port moves as the world animates it, against a budget of 5 MB.
        client.wait_for(banner.group(2) + '/modem/usage', timeout=40,
                        predicate=lambda m: m.json['budgetBytes'] == 5_000_000 and m.json['rxBytes'] > 0)
        client.disconnect()

        demo.send_signal(signal.SIGTERM)
        demo.wait(30)
        reader.join(10)
        assert 'demo: stopped\n' in lines and not group_members(demo.pid)
        assert not calls.exists(), calls.read_text()
    finally:
        kill_group(demo)
        for name in ('src', 'build'):
            os.unlink(os.path.join(checkout, name))
        os.rmdir(checkout)
