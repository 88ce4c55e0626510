'''The MQTT test client: paho-mqtt with TCP_NODELAY, recording every message it receives.'''

import json
import socket
import threading
import time

DEFAULT_BASE = 'tolv/network'
DEVICE_KINDS = ('ethernet', 'wifi', 'modem')

class Message:
    def __init__(self, topic, payload, qos, retain):
        self.topic = topic
        self.payload = payload
        self.qos = qos
        self.retain = retain
        self.time = time.monotonic()

    @property
    def text(self):
        return self.payload.decode('utf-8')

    @property
    def json(self):
        return json.loads(self.payload.decode('utf-8'))

    def __repr__(self):
        return f'Message({self.topic!r}, {self.payload!r}, qos={self.qos}, retain={self.retain})'


class MqttClient:
    '''A paho-mqtt client with TCP_NODELAY that records every message it receives.'''

    # Each is called as observer(client, "sent" or "received", topic, payload, qos, retain) for every message,
    # a sent payload as the caller gave it; the tests check the traffic against the published contract.
    observers = []

    def __init__(self, port, host='127.0.0.1', base=DEFAULT_BASE, username=None, password=None, client_id=''):
        import paho.mqtt.client as mqtt
        self._mqtt = mqtt
        self.base = base
        self.received = []
        self._returned = set()
        self._hidden = set()
        # (kind, interface) of every device whose state this client has seen; sync waits for their work.
        self.devices = set()
        self._cond = threading.Condition()
        self._connected = None
        self._subacks = {}
        self.client = mqtt.Client(client_id=client_id, clean_session=True, protocol=mqtt.MQTTv311)
        if username is not None:
            self.client.username_pw_set(username, password)
        self.client.reconnect_delay_set(0.1, 0.5)
        self.client.on_socket_open = self._on_socket_open
        self.client.on_connect = self._on_connect
        self.client.on_message = self._on_message
        self.client.on_subscribe = self._on_subscribe
        self.host, self.port = host, port

    @staticmethod
    def _on_socket_open(client, userdata, sock):
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def _on_connect(self, client, userdata, flags, rc):
        with self._cond:
            self._connected = rc
            self._cond.notify_all()

    def _on_subscribe(self, client, userdata, mid, granted_qos):
        with self._cond:
            self._subacks[mid] = granted_qos
            self._cond.notify_all()

    def _on_message(self, client, userdata, msg):
        for observe in self.observers:
            observe(self, 'received', msg.topic, bytes(msg.payload), msg.qos, bool(msg.retain))
        message = Message(msg.topic, bytes(msg.payload), msg.qos, bool(msg.retain))
        with self._cond:
            self.received.append(message)
            self._note_device(message)
            self._cond.notify_all()

    def _note_device(self, msg):
        for kind in DEVICE_KINDS:
            if msg.topic == self.topic(f'{kind}/state') and msg.payload:
                self.devices.add((kind, msg.json.get('interface')))

    def connect(self, timeout=10):
        self.client.connect(self.host, self.port, keepalive=60)
        self.client.loop_start()
        with self._cond:
            if not self._cond.wait_for(lambda: self._connected is not None, timeout):
                raise TimeoutError('no CONNACK from the broker')
        if self._connected != 0:
            self.disconnect()
            raise ConnectionError(f'broker refused the connection: {self._connected}')
        return self

    def disconnect(self):
        # Flagging the network thread before DISCONNECT lets it end at once instead of after its 1 s poll.
        self.client._thread_terminate = True
        try:
            self.client.disconnect()
        finally:
            self.client.loop_stop()

    def subscribe(self, topic_filter, qos=2, timeout=10):
        '''Subscribes and waits for the SUBACK; returns the granted QoS.'''
        result, mid = self.client.subscribe(topic_filter, qos)
        if result != 0:
            raise ConnectionError(f'subscribe failed: {result}')
        with self._cond:
            if not self._cond.wait_for(lambda: mid in self._subacks, timeout):
                raise TimeoutError(f'no SUBACK for {topic_filter}')
            return self._subacks[mid][0]

    def publish(self, topic, payload=b'', qos=0, retain=False, timeout=10, wait=True):
        '''Publishes and waits until the broker has the message; wait=False queues it and returns, so that a
        series of messages leaves as one burst.'''
        for observe in self.observers:
            observe(self, 'sent', topic, payload, qos, retain)
        if isinstance(payload, (dict, list)):
            payload = json.dumps(payload)
        info = self.client.publish(topic, payload, qos, retain)
        if not wait:
            return
        info.wait_for_publish(timeout)
        if not info.is_published():
            raise TimeoutError(f'publish on {topic} not completed')

    def command(self, name, payload=None, qos=2, wait=True):
        '''Publishes a command on base + "/" + name (a dict becomes JSON; bytes and text go as they are).'''
        self.publish(f'{self.base}/{name}', b'{}' if payload is None else payload, qos, wait=wait)

    def topic(self, name):
        return f'{self.base}/{name}'

    def _matches(self, msg, topic, predicate):
        if topic is not None and not self._mqtt.topic_matches_sub(topic, msg.topic):
            return False
        return predicate is None or predicate(msg)

    def wait_for(self, topic, timeout=10, predicate=None):
        '''The next message on topic (a filter may have wildcards) matching predicate that no earlier
        wait_for returned, in arrival order since the last clear().'''
        def find():
            for index, msg in enumerate(self.received):
                if index not in self._returned and id(msg) not in self._hidden \
                        and self._matches(msg, topic, predicate):
                    self._returned.add(index)
                    return msg
            return None
        with self._cond:
            msg = self._cond.wait_for(find, timeout)
        if msg is None:
            seen = [m.topic for m in self.messages()]
            raise TimeoutError(f'no message on {topic} within {timeout} s; received topics: {seen}')
        return msg

    def sync(self, timeout=10):
        '''Returns once everything tarvik published before now has arrived and the work it had queued for each
        device this client has seen is done.

        The answer to "info/get" comes after every publication made before the command was read; work on a
        device runs in the device's own order, so the answer to a configuration request comes after that
        device's earlier work (no event publishes that document). Those answers are the sync's own: messages()
        and wait_for() leave them out. No reload may be under way: its own documents would pass for the answers;
        nor may a retained copy, which a subscription made just before delivers late.'''
        sent = time.monotonic()
        devices = sorted(self.devices)
        for kind, interface in devices:
            self.command(f'{kind}/config/get', {'interface': interface})
        self.command('info/get', {})
        self.wait_for(self.topic('info'), timeout, predicate=lambda m: m.time >= sent and not m.retain)
        for kind, interface in devices:
            self._hide(self.wait_for(self.topic('#'), timeout, predicate=lambda m, k=kind, i=interface:
                                     m.time >= sent and self._answers_config_request(m, k, i)))

    def _answers_config_request(self, msg, kind, interface):
        if msg.topic == self.topic(f'{kind}/config'):
            return msg.json.get('interface') == interface
        # A device that has gone since, or whose secrets cannot be read, is answered with an error.
        return msg.topic == self.topic('error') and msg.json.get('command') == f'{kind}/config/get'

    def _hide(self, msg):
        with self._cond:
            self._hidden.add(id(msg))

    def messages(self, topic=None):
        with self._cond:
            return [m for m in self.received if id(m) not in self._hidden and self._matches(m, topic, None)]

    def count(self, topic):
        return len(self.messages(topic))

    def clear(self):
        with self._cond:
            self.received.clear()
            self._returned.clear()
            self._hidden.clear()
