'''Simulated ModemManager 1.20 for tarvik's tests (a python-dbusmock template).

Modems appear under /org/freedesktop/ModemManager1/Modem/N with their SIM and
bearer objects; the object manager at /org/freedesktop/ModemManager1 lists the
modems and announces a new one only once all of its interfaces exist.

Tests steer it through methods on org.freedesktop.DBus.Mock at
/org/freedesktop/ModemManager1 (see world/README.md). The daemon itself lives in
../simulated/modemmanager.py.
'''

import os
import sys

# dbusmock runs this file as a module of its own, outside any package: make ../simulated importable.
WORLD_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
if WORLD_DIR not in sys.path:
    sys.path.insert(0, WORLD_DIR)

from simulated.modemmanager import *  # noqa: E402,F401,F403  (load() and the Mock methods dbusmock serves)

BUS_NAME = 'org.freedesktop.ModemManager1'
MAIN_OBJ = '/org/freedesktop/ModemManager1'
MAIN_IFACE = 'org.freedesktop.ModemManager1'
SYSTEM_BUS = True
IS_OBJECT_MANAGER = False
