'''Fixtures of the end-to-end tests: a simulated world per test (or per module), tarvik, MQTT clients.

Everything a fixture starts is stopped in its teardown; a failing test keeps its
world directory (logs of the bus, the simulated services, the broker) and names it.
'''

import os
import sys

import pytest

SOURCE_DIR = os.environ.get('TARVIK_SOURCE_DIR') or os.path.abspath(os.path.join(os.path.dirname(__file__), '..', '..'))
sys.path.insert(0, os.path.join(SOURCE_DIR, 'world'))
sys.path.insert(0, os.path.join(SOURCE_DIR, 'tests', 'contract'))

from contract import Contract  # noqa: E402
from world import MqttClient, World  # noqa: E402

# Every message of every test client is checked against the published contract.
CONTRACT = Contract(os.path.join(SOURCE_DIR, 'docs', 'asyncapi.yaml'))
MqttClient.observers.append(CONTRACT.observe)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_teardown(item):
    '''Fails the test during which tarvik published a document off the contract (module fixtures included).'''
    yield
    violations = CONTRACT.take_violations()
    if violations:
        pytest.fail('documents off the contract in docs/asyncapi.yaml:\n' + '\n'.join(violations), pytrace=False)


@pytest.hookimpl(tryfirst=True, hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    setattr(item, 'report_' + report.when, report)


def _failed(node):
    return any(getattr(node, 'report_' + when, None) is not None and getattr(node, 'report_' + when).failed
               for when in ('setup', 'call'))


def _start_world(**kwargs):
    world = World(**kwargs)
    world.start()
    return world


def _stop_world(world, failed):
    keep = failed or world.keep
    world.stop(remove=not keep)
    if failed:
        print(f'\nworld kept for inspection: {world.directory}')


@pytest.fixture
def world(request):
    '''A started world for one test: bus, NetworkManager, ModemManager, broker (no devices yet).

    Parametrise it indirectly with a dict of World() arguments, e.g. broker_users={"u": "p"}.'''
    w = _start_world(**getattr(request, 'param', {}))
    try:
        yield w
    finally:
        _stop_world(w, _failed(request.node))


@pytest.fixture(scope='module')
def module_world(request):
    '''A world shared by the tests of one module (they must tolerate each other's traces).'''
    w = _start_world()
    try:
        yield w
    finally:
        _stop_world(w, False)


@pytest.fixture
def tarvik_binary():
    path = os.environ.get('TARVIK_BINARY')
    if not path or not os.path.exists(path):
        pytest.skip('TARVIK_BINARY is not built')
    return path


@pytest.fixture
def start_tarvik(world, tarvik_binary):
    '''start_tarvik(config=..., **Tarvik options) runs the built tarvik in the world (stopped with it).'''
    def start(**kwargs):
        kwargs.setdefault('binary', tarvik_binary)
        return world.tarvik(**kwargs)
    return start


@pytest.fixture
def mqtt(world):
    '''A test client subscribed to everything under the topic base, QoS 2.'''
    return world.mqtt(subscribe=world.base + '/#')
