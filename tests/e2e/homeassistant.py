"""What Home Assistant accepts of an MQTT discovery document, as its documentation for the sensor and
binary_sensor components says, and how it renders a value_template."""

import json

import jinja2.sandbox
from jsonschema import Draft7Validator

ID = {"type": "string", "pattern": "^[a-zA-Z0-9_-]+$"}
TOPIC = {"type": "string", "minLength": 1, "not": {"pattern": "[+#]"}}
DEVICE = {
    "type": "object", "additionalProperties": False, "required": ["identifiers", "name"],
    "properties": {
        "identifiers": {"type": "array", "minItems": 1, "items": {"type": "string"}},
        "connections": {"type": "array", "items": {"type": "array", "minItems": 2, "maxItems": 2,
                                                   "items": [{"const": "mac"},
                                                             {"pattern": "^[0-9a-f]{2}(:[0-9a-f]{2}){5}$"}]}},
        "name": {"type": "string", "minLength": 1}, "model": {"type": "string"},
        "manufacturer": {"type": "string"}, "sw_version": {"type": "string"},
    },
}
COMMON = {
    "name": {"type": "string", "minLength": 1}, "unique_id": ID, "object_id": ID, "state_topic": TOPIC,
    "value_template": {"type": "string", "minLength": 1}, "availability_topic": TOPIC,
    "payload_available": {"type": "string"}, "payload_not_available": {"type": "string"}, "device": DEVICE,
    "origin": {"type": "object", "required": ["name"], "additionalProperties": False,
               "properties": {"name": {"type": "string"}, "sw_version": {"type": "string"},
                              "support_url": {"type": "string"}}},
    "entity_category": {"enum": ["diagnostic"]},  # "config" is refused for read-only entities
}
INFORMATION_UNITS = ["bit", "kbit", "Mbit", "Gbit", "B", "kB", "MB", "GB", "TB", "PB", "EB", "ZB", "YB",
                     "KiB", "MiB", "GiB", "TiB", "PiB", "EiB", "ZiB", "YiB"]
SCHEMAS = {
    "sensor": {
        "type": "object", "additionalProperties": False, "required": ["state_topic", "unique_id", "device"],
        "properties": {**COMMON, "unit_of_measurement": {"type": "string"},
                       "device_class": {"enum": ["data_size", "signal_strength", "enum", "timestamp"]},
                       "state_class": {"enum": ["measurement", "total", "total_increasing"]}},
        "allOf": [
            # Each device class takes its own units only.
            {"if": {"required": ["device_class"], "properties": {"device_class": {"const": "data_size"}}},
             "then": {"required": ["unit_of_measurement"],
                      "properties": {"unit_of_measurement": {"enum": INFORMATION_UNITS}}}},
            {"if": {"required": ["device_class"], "properties": {"device_class": {"const": "signal_strength"}}},
             "then": {"properties": {"unit_of_measurement": {"enum": ["dB", "dBm"]}}}},
            # A percentage is a plain measurement: no device class claims "%" for a signal.
            {"if": {"required": ["unit_of_measurement"], "properties": {"unit_of_measurement": {"const": "%"}}},
             "then": {"not": {"required": ["device_class"]}}},
        ],
    },
    "binary_sensor": {
        "type": "object", "additionalProperties": False, "required": ["state_topic", "unique_id", "device"],
        "properties": {**COMMON, "device_class": {"enum": ["connectivity", "problem", "running"]},
                       "payload_on": {"type": "string"}, "payload_off": {"type": "string"}},
    },
}
VALIDATORS = {component: Draft7Validator(schema) for component, schema in SCHEMAS.items()}
ENVIRONMENT = jinja2.sandbox.ImmutableSandboxedEnvironment()


def problems(component, document):
    """Why Home Assistant would refuse the document: one line per fault."""
    return ["%s: %s" % ("/".join(map(str, e.absolute_path)), e.message)
            for e in VALIDATORS[component].iter_errors(document)]


def render(template, payload):
    """The state Home Assistant takes from a payload (stripped, as it strips it)."""
    text = payload.decode()
    try:
        value_json = json.loads(text)
    except ValueError:
        value_json = None
    return ENVIRONMENT.from_string(template).render(value=text, value_json=value_json).strip()
