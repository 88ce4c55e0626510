'''The published contract (docs/asyncapi.yaml) as the tests use it: every MQTT message a test client sends or
receives is checked against the schema, QoS and retain flag of its topic.'''

import functools
import json
import threading
from collections import namedtuple

import yaml
from jsonschema import Draft7Validator, RefResolver

Channel = namedtuple('Channel', 'validator mqtt message reply')


class OffContract(bytes):
    '''A command payload that a test sends outside the contract on purpose.'''


def off_contract(payload):
    '''Marks a command as deliberately off the contract (unknown name, wrong type, not JSON, ...).'''
    return OffContract(json.dumps(payload).encode() if isinstance(payload, (dict, list)) else payload)


class Contract:
    def __init__(self, path):
        with open(path, encoding='utf-8') as f:
            self.document = yaml.safe_load(f)
        resolver = RefResolver.from_schema(self.document)
        self.published, self.commands = {}, {}
        for operation in self.document['operations'].values():
            channel = self.resolve(operation['channel'])
            [message] = [self.resolve(m) for m in channel['messages'].values()]
            reply = operation.get('reply')
            entry = Channel(Draft7Validator(message['payload'], resolver=resolver),
                            self.resolve(operation['bindings'])['mqtt'], message,
                            self.topic(self.resolve(reply['channel'])) if reply else None)
            (self.published if operation['action'] == 'send' else self.commands)[self.topic(channel)] = entry
        self._sent = set()
        self._violations = []
        self._lock = threading.Lock()

    def resolve(self, node):
        while '$ref' in node:
            node = functools.reduce(lambda n, key: n[key], node['$ref'][2:].split('/'), self.document)
        return node

    @staticmethod
    def topic(channel):
        return channel['address'].replace('{base}/', '', 1)

    def problem(self, topic, channel, document):
        '''Every way the document misses its schema, one line each; None when it matches.'''
        found = []
        for error in sorted(channel.validator.iter_errors(document), key=lambda e: list(map(str, e.path))):
            while error.context:  # of a choice like null-or-object, name what is wrong with the object
                error = max(error.context, key=lambda e: (len(e.absolute_path), e.validator != 'type'))
            where = '/'.join(map(str, error.absolute_path)) or 'the top level'
            schema = '/'.join(map(str, error.absolute_schema_path))
            found.append('%s: %s at %s (schema %s)' % (topic, error.message, where, schema))
        return '\n'.join(found) or None

    def observe(self, client, direction, topic, payload, qos, retain):
        '''Given to the MQTT test client: a command off the contract fails the test that sends it at once; a
        document off the contract is kept for take_violations().'''
        if not topic.startswith(client.base + '/'):
            return  # another application's topics (Home Assistant's discovery)
        relative = topic[len(client.base) + 1:]
        if direction == 'sent':
            self._sent.add(topic)
            if not isinstance(payload, OffContract):
                problem = self.check_command(topic, relative, payload)
                assert problem is None, 'command off the contract: %s\n  payload: %r' % (problem, payload)
        elif topic not in self._sent:
            try:
                problem = self.check_document(topic, relative, payload, qos, retain)
            except Exception as error:  # noqa: BLE001  (an exception would end the client's network thread)
                problem = '%s: %r' % (topic, error)
            if problem:
                with self._lock:
                    self._violations.append('%s\n  payload: %s' % (problem, payload.decode(errors='replace')))

    def check_command(self, topic, relative, payload):
        channel = self.commands.get(relative)
        if channel is None:
            return topic + ' is no command topic'
        try:
            document = json.loads(payload or b'{}') if isinstance(payload, (bytes, str)) else payload
        except ValueError as error:
            return '%s: not JSON: %s' % (topic, error)
        return self.problem(topic, channel, document)

    def check_document(self, topic, relative, payload, qos, retain):
        channel = self.published.get(relative)
        if channel is None:
            return topic + ' is no published topic'
        if qos > channel.mqtt['qos'] or (retain and not channel.mqtt['retain']):
            return '%s: arrived with QoS %d, retained %s; the contract says QoS %d, retained %s' % (
                topic, qos, retain, channel.mqtt['qos'], channel.mqtt['retain'])
        try:
            document = payload.decode() if channel.message.get('contentType') == 'text/plain' else json.loads(payload)
        except ValueError as error:
            return '%s: not JSON: %s' % (topic, error)
        return self.problem(topic, channel, document)

    def take_violations(self):
        with self._lock:
            found, self._violations = self._violations, []
        return found
