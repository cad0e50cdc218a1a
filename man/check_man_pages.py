#!/usr/bin/env python3
"""Checks the man pages against the programs they describe.

    check_man_pages.py MAN_DIR AGENT SIM CTL

- every page renders with groff -man -ww -z without a warning, and through
  man --warnings as lintian formats it (when man is installed);
- every option a program's --help lists is described in its page's OPTIONS
  section, and every option described there is one --help lists (so a page
  cannot fall behind the program, nor describe an option that is gone);
- every zerva* token the agent's --help lists is described in
  zerva-snmp-agent.conf(5), and every zerva* token described there exists.
Prints each problem and exits 1 when there is one.
"""

import os
import re
import shutil
import subprocess
import sys


def render_problems(path):
    problems = []
    run = subprocess.run(["groff", "-man", "-ww", "-z", path], capture_output=True, text=True)
    out = (run.stdout + run.stderr).strip()
    if run.returncode != 0 or out:
        problems.append("%s: groff -man -ww -z: %s" % (path, out or "exit %d" % run.returncode))
    # The check lintian runs on a package's man pages: man's own warnings
    # while it formats the page for a UTF-8 terminal.
    if shutil.which("man"):
        env = dict(os.environ, LC_ALL="C.UTF-8", MANROFFSEQ="")
        run = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", path],
                             capture_output=True, text=True, env=env)
        err = run.stderr.strip()
        if run.returncode != 0 or err:
            problems.append("%s: man --warnings: %s" % (path, err or "exit %d" % run.returncode))
    return problems


def plain(text):
    """Man source as text: font escapes dropped, \\- as -."""
    text = re.sub(r"\\f[BIRP]", "", text)
    return text.replace("\\-", "-").replace("\\(dq", '"')


def section(text, name):
    """The lines of section .SH NAME, up to the next .SH."""
    m = re.search(r"^\.SH \"?%s\"?\n(.*?)(?=^\.SH |\Z)" % re.escape(name), text, re.M | re.S)
    return m.group(1) if m else ""


def described_options(page_text):
    """Options named in the tag line of each .TP item of OPTIONS."""
    body = plain(section(page_text, "OPTIONS"))
    names = set()
    for tag in re.findall(r"^\.TP\n(.*)$", body, re.M):
        names.update(re.findall(r"(?<![\w-])(--?[A-Za-z][\w-]*)", tag))
    return names


def help_options(program):
    run = subprocess.run([program, "--help"], capture_output=True, text=True)
    text = run.stdout + run.stderr
    names = set()
    for line in text.splitlines():
        if line.startswith("usage:"):
            names.update(re.findall(r"(?<![\w-])(--?[A-Za-z][\w-]*)", line))
            continue
        m = re.match(r"^\s+(-.*?)(?:\s{2,}|$)", line)
        if m:
            names.update(re.findall(r"(?<![\w-])(--?[A-Za-z][\w-]*)", m.group(1)))
    return names, text


def main():
    man_dir, agent, sim, ctl = sys.argv[1:5]
    pages = {
        "zerva-snmp-agent.8": agent,
        "zerva-array-sim.8": sim,
        "zerva-sim-ctl.1": ctl,
        "zerva-snmp-agent.conf.5": None,
    }
    problems = []
    texts = {}
    for page, program in pages.items():
        path = "%s/%s" % (man_dir, page)
        problems += render_problems(path)
        with open(path, encoding="utf-8") as f:
            texts[page] = f.read()
        if program is None:
            continue
        wanted, _ = help_options(program)
        described = described_options(texts[page])
        for name in sorted(wanted - described):
            problems.append("%s: option %s of --help is not described in OPTIONS" % (page, name))
        for name in sorted(described - wanted):
            problems.append("%s: OPTIONS describes %s, which --help does not list" % (page, name))

    _, agent_help = help_options(agent)
    tokens_part = agent_help.split("configuration tokens:", 1)[-1]
    tokens = set(re.findall(r"^\s+(zerva\w+)", tokens_part, re.M))
    if not tokens:
        problems.append("zerva-snmp-agent --help lists no configuration token")
    conf = plain(section(texts["zerva-snmp-agent.conf.5"], "ZERVA TOKENS"))
    described = set()
    for tag in re.findall(r"^\.TP\n(.*)$", conf, re.M):
        described.update(re.findall(r"\b(zerva\w+)", tag))
    for name in sorted(tokens - described):
        problems.append("zerva-snmp-agent.conf.5: token %s is not described" % name)
    for name in sorted(described - tokens):
        problems.append("zerva-snmp-agent.conf.5: describes %s, which the agent does not know" % name)

    for p in problems:
        print(p)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
