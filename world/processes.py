'''Processes of the simulated world: each in its own process group, none left behind.

Every process started here dies with the thread that started it (parent-death signal), is killed
at interpreter exit, and stop helpers wait until its whole group is gone.
'''

import atexit
import ctypes
import os
import random
import signal
import socket
import subprocess
import threading
import time

_live = set()
_PR_SET_PDEATHSIG = 1


def _die_with_parent():
    ctypes.CDLL('libc.so.6', use_errno=True).prctl(_PR_SET_PDEATHSIG, signal.SIGKILL)


def spawn(cmd, **kwargs):
    '''Starts a process in its own process group that dies with this one.'''
    proc = subprocess.Popen(cmd, start_new_session=True, preexec_fn=_die_with_parent, **kwargs)
    _live.add(proc)
    return proc


def kill_group(proc, timeout=5.0, sig=signal.SIGTERM):
    '''Stops the process group: the signal first, SIGKILL when it lingers; waits for the leader.'''
    if proc is None:
        return None
    try:
        if proc.poll() is None:
            try:
                os.killpg(proc.pid, sig)
            except ProcessLookupError:
                pass
            try:
                proc.wait(timeout)
            except subprocess.TimeoutExpired:
                pass
        try:
            os.killpg(proc.pid, signal.SIGKILL)
        except (ProcessLookupError, PermissionError):
            pass
        proc.wait(timeout)
        wait_until(lambda: not group_members(proc.pid), timeout, f'process group {proc.pid} to end')
    finally:
        _live.discard(proc)
    return proc.returncode


def group_members(pgid):
    '''Processes of the group that still run (zombies waiting for their reaper do not count).'''
    members = []
    for entry in os.listdir('/proc'):
        if not entry.isdigit():
            continue
        try:
            with open(f'/proc/{entry}/stat') as f:
                fields = f.read().rsplit(')', 1)[1].split()
        except OSError:
            continue
        if int(fields[2]) == pgid and fields[0] not in ('Z', 'X'):
            members.append(int(entry))
    return members


def _kill_everything():
    for proc in list(_live):
        try:
            kill_group(proc, timeout=2.0)
        except Exception:  # noqa: BLE001 - best effort at exit
            pass


atexit.register(_kill_everything)


def install_termination_handler():
    '''SIGTERM unwinds like Ctrl-C, so that finally blocks and fixtures stop what they started.'''
    if threading.current_thread() is not threading.main_thread():
        return
    if signal.getsignal(signal.SIGTERM) == signal.SIG_DFL:
        def on_term(signum, frame):
            raise KeyboardInterrupt('SIGTERM')
        signal.signal(signal.SIGTERM, on_term)


def wait_until(condition, timeout, what, interval=0.005):
    '''Polls condition until it returns a true value or the deadline passes.'''
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise TimeoutError(f'timed out after {timeout} s waiting for {what}')
        time.sleep(interval)


def log_tail(path, lines=20):
    '''The end of a log file, for error messages.'''
    if not path:
        return ''
    try:
        with open(path, errors='replace') as f:
            return '\n' + ''.join(f.readlines()[-lines:])
    except OSError:
        return ''


def free_port():
    '''A free loopback port below the ephemeral range: a port that bind(0) hands out can be taken as the source
    port of any outgoing connection while its broker restarts, and the broker then cannot listen again.'''
    for _ in range(1000):
        port = random.randrange(20000, 32000)
        with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
            try:
                s.bind(('127.0.0.1', port))
                return port
            except OSError:
                continue
    raise RuntimeError('no free port between 20000 and 32000')


def forget(proc):
    '''A process that ended by itself needs no killing at exit.'''
    _live.discard(proc)
