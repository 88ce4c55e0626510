#!/usr/bin/python3
'''Runs a packaged program the way systemd would start it from its unit, where no systemd runs.

    unitsandbox.py ROOT STATE exec                 the unit's ExecStart under the unit's confinement
    unitsandbox.py ROOT STATE run COMMAND...       COMMAND with the package installed, unconfined

ROOT is the package as extract() lays it out. Started as root in a private mount namespace (Tarvik's
namespace script gives it /dev, /tmp and /sys/class/net); the package is laid over /usr, and /etc and
/var/lib get writable layers in STATE. Confinement is rebuilt from the unit's [Service] lines with the
kernel features systemd uses (mounts, capability bounding set, no_new_privs, seccomp); a line this file
has no rule for is an error.
'''

import ctypes
import errno
import glob
import os
import re
import shlex
import socket
import subprocess
import sys

import seccomp

# Checked by systemd-analyze only, or provided by the caller's namespace (PrivateDevices=: a /dev of
# the usual nodes; SyslogFacility=: tarvik opens syslog with its facility itself).
NOT_REBUILT = {
    'Type', 'KillSignal', 'Restart', 'RestartSec', 'SyslogFacility', 'AmbientCapabilities', 'PrivateDevices',
    'PrivateMounts', 'ProtectKernelTunables', 'ProtectControlGroups', 'ProtectKernelModules', 'ProtectKernelLogs',
    'ProtectClock', 'ProtectHostname', 'RestrictRealtime', 'RestrictSUIDSGID', 'LockPersonality', 'RemoveIPC',
    'SystemCallArchitectures', 'ConfigurationDirectoryMode', 'StateDirectoryMode'}
REBUILT = {
    'ExecStart', 'WorkingDirectory', 'ConfigurationDirectory', 'StateDirectory', 'UMask', 'ReadWritePaths',
    'ProtectSystem', 'ProtectHome', 'ProtectProc', 'ProcSubset', 'NoNewPrivileges',
    'CapabilityBoundingSet', 'RestrictAddressFamilies', 'SystemCallFilter', 'MemoryDenyWriteExecute',
    'RestrictNamespaces'}
# Always allowed by systemd, whatever SystemCallFilter= says.
IMPLICIT_SYSCALLS = ['execve', 'exit', 'exit_group', 'getrlimit', 'rt_sigreturn', 'sigreturn', 'clock_gettime',
                     'gettimeofday', 'time', 'nanosleep', 'clock_nanosleep']
NAMESPACE_FLAGS = [0x00020000, 0x02000000, 0x04000000, 0x08000000, 0x10000000, 0x20000000, 0x40000000]


def extract(deb, root):
    '''dpkg-deb -x, with /lib moved below /usr as dpkg's files land on a merged-/usr system; the
    maintainer scripts go to ROOT/DEBIAN.'''
    sh('dpkg-deb', '-x', deb, root)
    sh('dpkg-deb', '-e', deb, os.path.join(root, 'DEBIAN'))
    if os.path.isdir(os.path.join(root, 'lib')):
        sh('cp', '-a', os.path.join(root, 'lib', '.'), os.path.join(root, 'usr', 'lib'))
        sh('rm', '-r', os.path.join(root, 'lib'))


def unit_path(root):
    return glob.glob(os.path.join(root, 'usr/lib/systemd/system/*.service'))[0]


def service(root):
    '''{key: [values]} of the [Service] section (a key may repeat).'''
    values, section = {}, None
    with open(unit_path(root)) as f:
        for line in map(str.strip, f):
            if line.startswith('['):
                section = line
            elif section == '[Service]' and line and not line.startswith(('#', ';')):
                key, _, value = line.partition('=')
                values.setdefault(key.strip(), []).append(value.strip())
    unknown = set(values) - REBUILT - NOT_REBUILT
    if unknown:
        raise SystemExit(f'unitsandbox: no rule for {sorted(unknown)}: add one')
    return values


def allowed_syscalls(filters):
    '''systemd's reading of SystemCallFilter= lines: the first allow list, then "~" lines take away.'''
    groups, name = {}, None
    text = subprocess.run(['systemd-analyze', 'syscall-filter'], check=True, capture_output=True, text=True).stdout
    for line in text.splitlines():
        if line.startswith('@'):   # a group; its members, groups among them, are indented
            name = line.strip()
        elif line.strip() and not line.strip().startswith('#'):
            groups.setdefault(name, []).append(line.strip())

    def expand(names):
        return set().union(*(expand(groups[n]) if n.startswith('@') else {n} for n in names))
    allowed = set(IMPLICIT_SYSCALLS)
    for value in filters:
        allowed = allowed - expand(value[1:].split()) if value.startswith('~') else allowed | expand(value.split())
    return allowed


def sh(*command):
    subprocess.run(command, check=True)


def install_package(root, state):
    '''The package over /usr, writable layers over /etc and /var/lib (each a fresh overlay mount).'''
    layers = {'/etc': os.path.join(state, 'etc'), '/var/lib': os.path.join(state, 'var-lib')}
    for target, upper in layers.items():
        work = upper + '.work'
        os.makedirs(upper, exist_ok=True)
        os.makedirs(work, exist_ok=True)
        sh('mount', '-t', 'overlay', 'overlay', '-o', f'lowerdir={target},upperdir={upper},workdir={work}', target)
    sh('mount', '-t', 'overlay', 'overlay', '-o', f'lowerdir={root}/usr:/usr', '/usr')


def mount_points():
    with open('/proc/self/mountinfo') as f:
        return [re.sub(r'\\(\d{3})', lambda m: chr(int(m.group(1), 8)), line.split()[4]) for line in f]


def confine_files(unit):
    directories = [('/etc/' + name, unit.get('ConfigurationDirectoryMode', ['0755'])[0])
                   for name in unit.get('ConfigurationDirectory', [])]
    directories += [('/var/lib/' + name, unit.get('StateDirectoryMode', ['0755'])[0])
                    for name in unit.get('StateDirectory', [])]
    for path, mode in directories:
        os.makedirs(path, exist_ok=True)
        os.chmod(path, int(mode, 8))
    if unit.get('ProtectHome', ['no'])[-1] == 'yes':
        for home in ('/home', '/root', '/run/user'):
            if os.path.isdir(home):
                sh('mount', '-t', 'tmpfs', '-o', 'ro,mode=000', 'tmpfs', home)
    options = [f'hidepid={v}' for v in unit.get('ProtectProc', [])]
    options += [f'subset={v}' for v in unit.get('ProcSubset', [])]
    if options:
        sh('mount', '-t', 'proc', '-o', ','.join(options + ['nosuid', 'nodev', 'noexec']), 'proc', '/proc')
    writable = [p for value in unit.get('ReadWritePaths', []) for p in value.split()] + [p for p, _ in directories]
    for path in writable:
        sh('mount', '--bind', path, path)
    if unit.get('ProtectSystem', ['no'])[-1] == 'strict':
        for point in mount_points():
            if point not in writable and not point.startswith(('/dev', '/proc')):
                sh('mount', '-o', 'remount,bind,ro', point)


def confine_process(unit, last_cap):
    libc = ctypes.CDLL(None, use_errno=True)
    if unit.get('CapabilityBoundingSet', [None])[-1] == '':
        for cap in range(last_cap + 1):
            if libc.prctl(24, cap, 0, 0, 0) != 0:  # PR_CAPBSET_DROP
                raise OSError(ctypes.get_errno(), 'PR_CAPBSET_DROP')
    if unit.get('NoNewPrivileges', ['no'])[-1] == 'yes':
        libc.prctl(38, 1, 0, 0, 0)  # PR_SET_NO_NEW_PRIVS
    # Argument checks in a filter of their own (the kernel applies every loaded filter) ...
    checks = seccomp.SyscallFilter(defaction=seccomp.ALLOW)
    families = unit.get('RestrictAddressFamilies', [])
    if families:
        allowed = {getattr(socket, name) for name in families[-1].split()}
        for family in set(range(64)) - allowed:
            checks.add_rule(seccomp.ERRNO(errno.EAFNOSUPPORT), 'socket', seccomp.Arg(0, seccomp.EQ, family))
    if unit.get('MemoryDenyWriteExecute', ['no'])[-1] == 'yes':
        exec_write = 0x4 | 0x2
        checks.add_rule(seccomp.ERRNO(errno.EPERM), 'mmap', seccomp.Arg(2, seccomp.MASKED_EQ, exec_write, exec_write))
        for call in ('mprotect', 'pkey_mprotect'):
            checks.add_rule(seccomp.ERRNO(errno.EPERM), call, seccomp.Arg(2, seccomp.MASKED_EQ, 0x4, 0x4))
    if unit.get('RestrictNamespaces', ['no'])[-1] == 'yes':
        for call in ('unshare', 'setns'):
            checks.add_rule(seccomp.ERRNO(errno.EPERM), call)
        for flag in NAMESPACE_FLAGS:
            checks.add_rule(seccomp.ERRNO(errno.EPERM), 'clone', seccomp.Arg(0, seccomp.MASKED_EQ, flag, flag))
        checks.add_rule(seccomp.ERRNO(errno.ENOSYS), 'clone3')
    checks.load()
    # ... and the allow list last, which leaves the process nothing but execve to do.
    if unit.get('SystemCallFilter'):
        allow = seccomp.SyscallFilter(defaction=seccomp.KILL_PROCESS)
        for call in sorted(allowed_syscalls(unit['SystemCallFilter'])):
            try:
                allow.add_rule(seccomp.ALLOW, call)
            except (RuntimeError, ValueError):
                pass  # not a system call of this architecture
        allow.load()


def main(root, state, mode, *command):
    install_package(root, state)
    env = {'PATH': '/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin',
           'DBUS_SYSTEM_BUS_ADDRESS': os.environ.get('DBUS_SYSTEM_BUS_ADDRESS', '')}
    if mode == 'run':
        os.execvpe(command[0], list(command), env)
    unit = service(root)
    argv = shlex.split(unit['ExecStart'][-1])
    with open('/proc/sys/kernel/cap_last_cap') as f:
        last_cap = int(f.read())
    confine_files(unit)
    os.chdir(unit.get('WorkingDirectory', ['/'])[-1])
    os.umask(int(unit.get('UMask', ['0022'])[-1], 8))
    confine_process(unit, last_cap)
    os.execve(argv[0], argv, env)


if __name__ == '__main__':
    main(*sys.argv[1:])
