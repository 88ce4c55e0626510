"""The command line of the tarvik binary: banner, help, version, parse errors,
verbosity and the configuration file it picks."""

import os
import re
import shutil
import subprocess

import pytest

from contract import off_contract
from world import kill_group, spawn, wait_until

BINARY = os.environ["TARVIK_BINARY"]
BANNER = re.compile(r"tarvik v" + re.escape(os.environ["TARVIK_VERSION"]) + r" \((Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) "
                    r"( [1-9]|[12][0-9]|3[01]) \d{4}, ([01]\d|2[0-3]):[0-5]\d:[0-5]\d\)\n")


def run(*args, cwd=None, timeout=10, env=None):
    return subprocess.run([BINARY, *args], capture_output=True, text=True, cwd=cwd, timeout=timeout, env=env)


def option_names(help_text):
    return set(re.findall(r"^ +(-\S*?(?:, --[\w-]+)?)(?= )", help_text, re.M))


# Neither help nor version reads or creates the configuration file; help wins over version.
def test_version_and_help_print_and_exit_before_the_configuration(tmp_path):
    conf = str(tmp_path / "never.conf")
    for flag in ("-V", "--version"):
        result = run(flag, "-f", conf)
        assert (result.returncode, result.stderr) == (0, ""), flag
        assert BANNER.fullmatch(result.stdout), repr(result.stdout)
    for args in (["-h"], ["--help", "--config", conf], ["-V", "-h"]):
        result = run(*args)
        assert result.returncode == 0, args
        banner, _, help_text = result.stdout.partition("\n")
        assert BANNER.fullmatch(banner + "\n")
        assert help_text.startswith("Usage: ")
        assert "An MQTT service for managing network devices and connections." in help_text
        assert option_names(help_text) == {"-h, --help", "-V, --version", "-v, --verbose", "-e, --stderr",
                                           "-c, --color", "-f, --config"}
        flat = " ".join(help_text.split())
        for line in ("Displays help information and exits.", "Displays version and exits.",
                     "--verbose <level> Sets verbosity level: 0=err, 1=warn, 2=info(default), 3=debug",
                     "Log to stderr as well as syslog.", "Use VT100 color codes in log.",
                     "--config <filename> Specifies configuration file (default is ./tarvik.conf)."):
            assert line in flat
        assert "--help-all" not in help_text and "-?" not in help_text
    assert list(tmp_path.iterdir()) == []


@pytest.mark.parametrize("args, message", [
    (["--bogus"], "Unknown option 'bogus'."),
    (["-x"], "Unknown option 'x'."),
    (["-v"], "Missing value after '-v'."),
    (["--config"], "Missing value after '--config'."),
])
def test_parse_errors_exit_with_status_1_after_the_banner(args, message, tmp_path):
    result = run(*args, cwd=tmp_path)
    assert result.returncode == 1
    assert BANNER.fullmatch(result.stdout)
    assert message in result.stderr
    assert list(tmp_path.iterdir()) == []


def test_default_path_is_beside_the_executable(tmp_path):
    bindir, workdir = tmp_path / "bin", tmp_path / "work"
    bindir.mkdir()
    workdir.mkdir()
    shutil.copy2(BINARY, bindir / "tarvik")
    conf = bindir / "tarvik.conf"
    proc = spawn([str(bindir / "tarvik"), "-e"], cwd=workdir, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        wait_until(lambda: conf.exists() and "usageSec=" in conf.read_text(), 10, f"{conf} written")
    finally:
        kill_group(proc)
    err = proc.communicate(timeout=10)[1]
    assert f"[Config] Config file not found: '{conf}'." in err
    assert "[Config] Creating file with default values." in err
    assert list(workdir.iterdir()) == []


@pytest.mark.parametrize("content", [b'{"Mqtt": {"url": "broker"}}\n', bytes(range(256))], ids=["json", "binary"])
def test_unreadable_file_and_missing_system_bus_are_named(tmp_path, content):
    conf = tmp_path / "tarvik.conf"
    conf.write_bytes(content)
    result = run("-f", str(conf), "-e", env=dict(os.environ, DBUS_SYSTEM_BUS_ADDRESS="unix:path=/nonexistent"))
    assert (f"[Config] Config file '{conf}' is not an INI file with the groups Mqtt, Ethernet, Wifi or Modem. "
            "Using default values.") in result.stderr
    # Qt cannot connect to the bus later: the service manager is to start tarvik again.
    assert "[Engine] Cannot reach the D-Bus system bus: " in result.stderr
    assert result.returncode == 1


# A line of each level, and the syslog priority the level has.
LEVEL_MARKERS = {
    "error": ("[Engine] Unsupported command 'noise/get'", 3),
    "warning": ("[Engine] Skipping device: bt0", 4),
    "info": ("[Engine] IPC Connected to 127.0.0.1", 6),
    "debug": ("[IPC] Publishing Message", 7),
}


@pytest.mark.parametrize("verbosity, shown", [
    (None, {"error", "warning", "info"}),
    ("7", {"error", "warning", "info", "debug"}),
    ("1", {"error", "warning"}),
    ("-2", {"error"}),
    ("abc", {"error"}),
])
def test_levels_reaching_stderr_and_syslog(world, verbosity, shown):
    world.nm.add_device("bt0", 5, state=30)
    client = world.mqtt(subscribe=world.base + "/status")
    client.subscribe(world.base + "/error")
    args = ["-f", "{config}", "-e"] + (["-v", verbosity] if verbosity is not None else [])
    tarvik = world.tarvik(args=args)
    # The status document follows the subscriptions; the error follows the whole start-up.
    client.wait_for(world.base + "/status")
    client.command("noise/get", off_contract({}))
    client.wait_for(world.base + "/error")
    tarvik.wait_for_log(re.escape(LEVEL_MARKERS["error"][0]))
    seen = {level for level, (marker, _) in LEVEL_MARKERS.items()
            if any(marker in line for line in tarvik.log_lines)}
    assert seen == shown
    if tarvik.syslog:   # captured when run as root
        tarvik.wait_for_syslog(re.escape(LEVEL_MARKERS["error"][0]))
        assert {(level, record.facility, record.priority) for level, (marker, _) in LEVEL_MARKERS.items()
                for record in tarvik.syslog_records if marker in record.message} == {
            (level, 17, LEVEL_MARKERS[level][1]) for level in shown}


# A stop that comes while tarvik is still starting waits for the event loop and ends as cleanly as a later one.
def test_a_stop_right_after_the_banner_ends_with_status_0(world):
    for _ in range(10):
        tarvik = world.tarvik()
        wait_until(lambda: tarvik.stdout_lines, 10, "the banner")
        assert tarvik.stop() == 0
