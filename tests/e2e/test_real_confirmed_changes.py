"""Confirmed modem changes against the real NetworkManager, with the broker reachable only over the modem.

The simulated ModemManager's network accepts two APNs and hands out a new address at every connect, as a
carrier does; the broker sits at the far end of the modem's data port. A change that cuts the modem off cuts
tarvik off its broker: only the daemon's checkpoint can bring it back. A good change is kept once the client
or the probe confirms it; a restart of the daemon inside the window falls back to the saved profile. Skipped
where the daemon cannot run."""

import os
import re
import time

import pytest

from conftest import stopped_after
from realnetworkmanager import DATA_PORT, MODEM_DEVICE as MODEM, MODEM_PROFILE, RealWorld, Unavailable
from world import config_keys, wait_until

GOOD_APN, OTHER_APN, WRONG_APN = "internet", "internet.other", "wrong.example"
# The address the carrier gives at each connect, in turn.
ADDRESSES = [f"10.64.0.{n}" for n in range(2, 40)]


@pytest.fixture(scope="module")
def real(request):
    try:
        world = RealWorld(broker_over_modem=True,
                          modem_options={"apns": f"{GOOD_APN},{OTHER_APN}", "addresses": ",".join(ADDRESSES)}).start()
    except Unavailable as reason:
        pytest.skip(str(reason))
    with stopped_after(request, world):
        yield world


@pytest.fixture
def start(real, tarvik_binary, request):
    """start(config) runs tarvik beside the daemon with the modem's profile as its file says; returns (tarvik,
    client) once its reload is over."""
    started = []

    def run(config=None):
        client = real.mqtt(subscribe=real.base + "/#")
        tarvik = real.tarvik(config={"Modem": {"apn": GOOD_APN}, **(config or {})}, binary=tarvik_binary,
                             private_tmp=True)
        started.append((tarvik, client))
        tarvik.wait_for_log(r"\[Engine\] Reloading all devices and connections\.$", timeout=20)
        client.wait_for(client.topic("modem/signal"))
        client.sync()
        return tarvik, client
    def restart(tarvik):
        """The same tarvik started again (after a kill), with its file and statistics."""
        started.append((real.tarvik(write_config=False, config_path=tarvik.config_path, cwd=tarvik.cwd,
                                    private_tmp=True, binary=tarvik_binary), started[-1][1]))
        return started[-1][0]
    run.restart = restart
    yield run
    for index, (tarvik, client) in enumerate(started):
        tarvik.stop()
        if client not in [c for _, c in started[index + 1:]]:
            client.disconnect()
        with open(os.path.join(real.directory, f"{request.node.name}-tarvik-{index}.log"), "w") as log:
            log.write("\n".join(tarvik.log_lines))


def modem_address(real):
    found = re.search(r"inet (\S+)/", real.daemon.netns.ip("-4", "address", "show", "dev", DATA_PORT))
    return found and found.group(1)


def profile_apn(real):
    return real.nm.connection_settings(real.nm.find_connection(MODEM_PROFILE))["gsm"].get("apn")


def keyfile_apn(real):
    with open(os.path.join(real.daemon.keyfiles, f"{MODEM_PROFILE}.nmconnection")) as keyfile:
        return re.search(r"^apn=(.*)$", keyfile.read(), re.M).group(1)


def transaction(client, change_id, state, timeout=10):
    """The change's document in that state (the topic keeps the previous test's last one)."""
    return client.wait_for(client.topic("transaction"), timeout,
                           predicate=lambda m: (m.json["id"], m.json["state"]) == (change_id, state)).json


def settled(real, seconds=1.0):
    """The modem's address, once it has stayed connected with it for a while: NetworkManager 1.42.4 aborts when a
    re-activation meets the answer to its own Modem.Simple.Connect, and one that follows a rollback's
    re-activation closely can end connected without an address ("ip method unsupported by modem")."""
    seen = {}

    def steady():
        now = (real.nm.device_state(real.nm.devices()[MODEM]), modem_address(real))
        if now != seen.get("state"):
            seen.update(state=now, since=time.monotonic())
        return now[0] == 100 and now[1] and time.monotonic() - seen["since"] >= seconds and now[1]
    return wait_until(steady, 30, "the modem settled", interval=0.05)


def try_apn(real, client, apn, change_id, within):
    """Sends the change (a whole record: a missing method means link-local) once the modem has settled; returns
    the modem's address before it."""
    before = settled(real)
    client.command("modem/config/set", {"interface": MODEM, "apn": apn, "method": "auto", "confirmWithin": within, "id": change_id})
    return before


def back_on_the_broker(real, tarvik, before):
    """The modem reconnected with a new address and tarvik's session with it."""
    real.nm.wait_for_device(MODEM, 100, timeout=40)
    wait_until(lambda: modem_address(real) not in (None, before), 10, "a new address on the modem")
    tarvik.wait_for_log(r"\[IPC\] Connected\.$", timeout=10)


@pytest.mark.parametrize("killed", [False, True], ids=["rolled-back", "rolled-back-after-kill"])
def test_a_wrong_apn_never_loses_the_gateway(real, start, killed):
    probe = f"{real.broker.host}:{real.broker.port}"
    tarvik, client = start({"Changes": {"confirmProbe": probe}})
    change_id = "apn-killed" if killed else "apn"
    before = try_apn(real, client, WRONG_APN, change_id, 15)
    deadline = transaction(client, change_id, "pending")["deadline"]
    # The old session went with the old address.
    tarvik.wait_for_log(rf"\[IPC\] The route to the broker from {re.escape(before)} is gone: connecting again\.$")
    if killed:
        tarvik.stop(sig=9)
        tarvik = start.restart(tarvik)
    rolled_back = transaction(client, change_id, "rolledBack", 40)
    back = time.time()
    if killed:
        assert rolled_back["reason"] == "service restarted during the change"
    else:
        assert rolled_back["reason"] == "not confirmed within 15 s"
        assert rolled_back["rollback"] == {MODEM: "restored"}
    back_on_the_broker(real, tarvik, before)
    print(f"\nrollback: broker session back {back - deadline:.2f} s after the deadline")
    assert profile_apn(real) == GOOD_APN and keyfile_apn(real) == GOOD_APN
    assert config_keys(tarvik.config_path)["Modem/apn"] == GOOD_APN
    assert real.nm.checkpoints() == []



@pytest.mark.parametrize("confirmed_by", ["client", "probe"])
def test_a_good_apn_confirmed_is_saved(real, start, confirmed_by):
    probe = f"{real.broker.host}:{real.broker.port}"
    tarvik, client = start({"Changes": {"confirmProbe": probe}} if confirmed_by == "probe" else None)
    change_id = f"apn-{confirmed_by}"
    before = try_apn(real, client, OTHER_APN, change_id, 60)
    transaction(client, change_id, "pending")
    back_on_the_broker(real, tarvik, before)
    if confirmed_by == "client":
        client.command("transaction/confirm", {"id": change_id})
    confirmed = transaction(client, change_id, "confirmed", 30)
    if confirmed_by == "probe":
        assert confirmed["reason"] == f"confirmed by reaching {probe}"
    assert profile_apn(real) == OTHER_APN and keyfile_apn(real) == OTHER_APN
    assert config_keys(tarvik.config_path)["Modem/apn"] == OTHER_APN
    assert real.nm.checkpoints() == []


def test_a_networkmanager_restart_in_the_window_falls_back_to_the_saved_profile(real, start):
    tarvik, client = start()
    before = try_apn(real, client, OTHER_APN, "apn-restart", 60)
    transaction(client, "apn-restart", "pending")
    back_on_the_broker(real, tarvik, before)
    assert profile_apn(real) == OTHER_APN
    real.daemon.restart()
    rolled_back = transaction(client, "apn-restart", "rolledBack", 40)
    assert rolled_back["reason"] == "NetworkManager restarted during the change"
    real.nm.wait_for_device(MODEM, 100, timeout=40)
    client.sync()
    assert profile_apn(real) == GOOD_APN and keyfile_apn(real) == GOOD_APN
    assert config_keys(tarvik.config_path)["Modem/apn"] == GOOD_APN
    assert real.nm.checkpoints() == []
