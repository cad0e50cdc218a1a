"""Runs a service as its installed systemd unit says, where systemd is not
PID 1 (a container, a CI machine): the ExecStart command line with the
EnvironmentFile's variables, as the unit's User and Group, with its UMask,
RuntimeDirectory and StateDirectory, NoNewPrivileges and its capabilities
(setpriv). The file-system sandbox (ProtectSystem=, PrivateTmp=, ...) needs
systemd itself; `systemd-analyze verify` checks those lines.
"""
import grp
import os
import pwd
import re
import shlex
import shutil
import signal
import subprocess

UNIT_DIRS = ("/etc/systemd/system", "/lib/systemd/system", "/usr/lib/systemd/system")


def find_unit(name):
    for d in UNIT_DIRS:
        path = os.path.join(d, name)
        if os.path.exists(path):
            return path
    raise FileNotFoundError("no unit file %s in %s" % (name, ", ".join(UNIT_DIRS)))


def parse_unit(path):
    """{section: {key: [values]}} of a unit file (continuation lines joined)."""
    sections = {}
    current = None
    with open(path) as f:
        text = f.read().replace("\\\n", " ")
    for line in text.splitlines():
        line = line.strip()
        if not line or line[0] in "#;":
            continue
        if line.startswith("[") and line.endswith("]"):
            current = sections.setdefault(line[1:-1], {})
            continue
        key, _, value = line.partition("=")
        current.setdefault(key.strip(), []).append(value.strip())
    return sections


def read_environment_file(path):
    """KEY=VALUE lines as systemd reads them (quotes removed)."""
    env = {}
    with open(path) as f:
        for line in f:
            line = line.strip()
            if not line or line[0] in "#;":
                continue
            key, _, value = line.partition("=")
            words = shlex.split(value) if value else [""]
            env[key.strip()] = " ".join(words)
    return env


def expand_command(line, env, main_pid=None):
    """systemd's expansion: $VAR splits into words, ${VAR} is one word."""
    if main_pid is not None:
        env = dict(env, MAINPID=str(main_pid))
    words = []
    for word in shlex.split(line):
        m = re.fullmatch(r"\$([A-Za-z_][A-Za-z0-9_]*)", word)
        if m:
            words.extend(env.get(m.group(1), "").split())
            continue
        words.append(re.sub(r"\$\{([A-Za-z_][A-Za-z0-9_]*)\}", lambda m: env.get(m.group(1), ""), word))
    return words


class Service:
    """One service of an installed unit, started the way systemd would."""

    def __init__(self, unit_name, log_path):
        self.name = unit_name
        self.path = find_unit(unit_name)
        self.unit = parse_unit(self.path)
        self.service = self.unit["Service"]
        self.log_path = log_path
        self.process = None

    def value(self, key, default=None):
        values = self.service.get(key)
        return values[-1] if values else default

    def environment(self):
        env = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C.UTF-8"}
        for entry in self.service.get("EnvironmentFile", []):
            optional = entry.startswith("-")
            path = entry[1:] if optional else entry
            if os.path.exists(path):
                env.update(read_environment_file(path))
            elif not optional:
                raise FileNotFoundError(path)
        return env

    def _paths(self, key, base):
        return [os.path.join(base, name) for name in (self.value(key) or "").split()]

    def _directories(self, key, base):
        user = self.value("User", "root")
        group = self.value("Group", user)
        mode = int(self.value(key + "Mode", "0755"), 8)
        for path in self._paths(key, base):
            os.makedirs(path, exist_ok=True)
            os.chown(path, pwd.getpwnam(user).pw_uid, grp.getgrnam(group).gr_gid)
            os.chmod(path, mode)

    def setpriv(self):
        """setpriv's options for the unit's credentials and capabilities."""
        user = self.value("User")
        if user is None:
            return []
        group = self.value("Group", user)
        caps = [c.lower().replace("cap_", "") for c in (self.value("AmbientCapabilities") or "").split()]
        bounding = [c.lower().replace("cap_", "") for c in (self.value("CapabilityBoundingSet") or "").split()]
        opts = ["setpriv", "--reuid=" + user, "--regid=" + group, "--init-groups"]
        opts.append("--bounding-set=" + ",".join(["-all"] + ["+" + c for c in bounding]))
        if caps:
            wanted = ",".join(["-all"] + ["+" + c for c in caps])
            opts += ["--inh-caps=" + wanted, "--ambient-caps=" + wanted]
        if self.value("NoNewPrivileges", "no") in ("yes", "true", "1"):
            opts.append("--no-new-privs")
        return opts + ["--"]

    def start(self):
        self._directories("RuntimeDirectory", "/run")
        self._directories("StateDirectory", "/var/lib")
        env = self.environment()
        command = expand_command(self.value("ExecStart"), env)
        umask = int(self.value("UMask", "0022"), 8)
        log = open(self.log_path, "ab")
        self.process = subprocess.Popen(self.setpriv() + command, stdin=subprocess.DEVNULL, stdout=log,
                                        stderr=subprocess.STDOUT, cwd="/", env=env,
                                        preexec_fn=lambda: os.umask(umask))
        log.close()
        return command

    def reload(self):
        """Runs ExecReload with $MAINPID, as `systemctl reload` does."""
        command = expand_command(self.value("ExecReload"), self.environment(), main_pid=self.process.pid)
        subprocess.run(command, check=True)
        return command

    def stop(self, timeout=30):
        """SIGTERM (systemd's KillSignal), then the exit status."""
        if self.process is None or self.process.poll() is not None:
            return None if self.process is None else self.process.returncode
        self.process.send_signal(signal.SIGTERM)
        try:
            return self.process.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return "did not stop on SIGTERM"

    def remove_runtime_directories(self):
        """Removes the RuntimeDirectory entries, as systemd does once the unit has stopped."""
        for path in self._paths("RuntimeDirectory", "/run"):
            shutil.rmtree(path, ignore_errors=True)

    def log(self):
        with open(self.log_path, errors="replace") as f:
            return f.read()
