'''Fixtures of the end-to-end tests: a simulated world per test (or per module), tarvik, MQTT clients.

Everything a fixture starts is stopped in its teardown; a failing test keeps its
world directory (logs of the bus, the simulated services, the broker) and names it.
'''

import contextlib
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


@contextlib.contextmanager
def stopped_after(request, world):
    '''Stops the started world afterwards; keeps its directory when a test failed meanwhile.'''
    failed = request.session.testsfailed
    try:
        yield world
    finally:
        kept = request.session.testsfailed > failed
        world.stop(remove=False if kept else None)
        if kept:
            print(f'\nworld kept for inspection: {world.directory}')


@pytest.fixture
def world(request):
    '''A started world for one test: bus, NetworkManager, ModemManager, broker (no devices yet).

    Parametrise it indirectly with a dict of World() arguments, e.g. broker_users={"u": "p"}.'''
    with stopped_after(request, World(**getattr(request, 'param', {})).start()) as w:
        yield w


@pytest.fixture(scope='module')
def module_world(request):
    '''A world shared by the tests of one module (they must tolerate each other's traces).'''
    with stopped_after(request, World().start()) as w:
        yield w


@pytest.fixture
def tarvik_binary():
    path = os.environ.get('TARVIK_BINARY')
    if not path or not os.path.exists(path):
        pytest.skip('TARVIK_BINARY is not built')
    return path


@pytest.fixture
def mqtt(world):
    '''A test client subscribed to everything under the topic base, QoS 2.'''
    return world.mqtt(subscribe=world.base + '/#')
