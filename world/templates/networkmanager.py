'''Simulated NetworkManager 1.42 for tarvik's tests (a python-dbusmock template).

Serves the D-Bus API that NetworkManagerQt reads and calls: the manager, devices
(wired, wireless, modem, any other type), access points, saved profiles with
secrets kept apart from their settings, active connections and IPv4
configurations. Activation walks the device through the daemon's own state
sequence with StateChanged and org.freedesktop.DBus.Properties.PropertiesChanged.

Tests steer it through methods on org.freedesktop.DBus.Mock at /org/freedesktop
(see world/README.md); world.py wraps them. The daemon itself lives in
../simulated/networkmanager/.
'''

import os
import sys

# dbusmock runs this file as a module of its own, outside any package: make ../simulated importable.
WORLD_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
if WORLD_DIR not in sys.path:
    sys.path.insert(0, WORLD_DIR)

from simulated.networkmanager.control import *  # noqa: E402,F401,F403  (dbusmock serves the Mock methods found here)
from simulated.networkmanager.manager import load  # noqa: E402,F401

BUS_NAME = 'org.freedesktop.NetworkManager'
MAIN_OBJ = '/org/freedesktop'
SYSTEM_BUS = True
IS_OBJECT_MANAGER = True
