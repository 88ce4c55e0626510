'''The contract's own examples follow its schemas, and the README's command and topic tables say what it says.'''

import os
import re

from contract import Contract

SOURCE_DIR = os.environ.get('TARVIK_SOURCE_DIR') or os.path.join(os.path.dirname(__file__), '..', '..')
CONTRACT = Contract(os.path.join(SOURCE_DIR, 'docs', 'asyncapi.yaml'))


def readme_table(heading):
    '''The body rows of the first table under the README heading, as lists of cells.'''
    with open(os.path.join(SOURCE_DIR, 'README.md'), encoding='utf-8') as f:
        section = f.read().split('\n## %s\n' % heading, 1)[1]
    lines = re.search(r'^\|.*?(?=\n[^|])', section, re.S | re.M).group(0).split('\n')
    return [[cell.strip() for cell in line.strip('|').split('|')] for line in lines[2:]]


def test_examples_follow_their_schemas():
    for topic, channel in {**CONTRACT.published, **CONTRACT.commands}.items():
        for example in channel.message['examples']:
            assert CONTRACT.problem(topic, channel, example['payload']) is None, example['name']


def test_readme_command_table_matches_the_contract():
    readme = {}
    for command, payload, answer in readme_table('Commands'):
        keys = set(re.findall(r'[{,]\s*"(\w+)"', payload))
        readme[command.strip('`')] = (keys, re.findall(r'`([^`]+)`', answer) or ['none'])
    assert readme == {command: (set(CONTRACT.resolve(channel.message['payload']).get('properties', {})),
                                [channel.reply or 'none'])
                      for command, channel in CONTRACT.commands.items()}


def test_readme_topic_table_matches_the_contract():
    readme = {}
    for topics, qos, retained, _ in readme_table('Published topics'):
        for topic in re.findall(r'`([^`]+)`', topics):
            readme[topic] = {'qos': int(qos), 'retain': retained == 'yes'}
    assert readme == {topic: {'qos': channel.mqtt['qos'], 'retain': channel.mqtt['retain']}
                      for topic, channel in CONTRACT.published.items()}
