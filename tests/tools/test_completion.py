"""Completes command lines of the tools in bash and zsh, and compares the result with --help.

Usage: test_completion.py PROGRAM...
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

PROGRAMS = {pathlib.Path(path).name: path for path in sys.argv[1:]}

BASH = """
source "$1"
COMP_WORDS=("${@:2}") COMP_CWORD=$(($# - 2))
compopt() { :; }  # of use on the command line alone
"$(complete -p "${2##*/}" | sed 's/.*-F \\([^ ]*\\).*/\\1/')"
printf '%s\\n' "${COMPREPLY[@]}"
"""

# Runs zsh in a terminal of its own. Prints candidates instead of listing them, with an end mark.
ZSH = """
zmodload zsh/zpty
zpty shell zsh -f -i
zpty -w shell 'PROMPT= fpath=('$1' $fpath); autoload -U compinit; compinit -u -D
compadd() {
    typeset -a found
    [[ " $* " == *" -"[OAD]" "* ]] || { builtin compadd -O found "$@"; print -rn -- "<"$^found">" }
    builtin compadd "$@"
}
finish() { print -n "<e""nd>" }
complete-word() { comppostfuncs=(finish); _main_complete }
zle -C complete-word complete-word complete-word
bindkey "^I" complete-word
print "<re""ady>"'
zpty -r shell text '*<ready>*'
shift
for line; do
    zpty -w -n shell "$line"$'\\t'
    zpty -r shell text '*<end>*'
    print -r -- ${(q)text}
    zpty -w -n shell $'\\C-u'
done
"""


PINS = [f"studio1:{kind}{n}" for kind in ("in", "out") for n in range(1, 6)]


def run(*command, names="/dev/null"):
    path = ":".join(str(pathlib.Path(program).parent) for program in PROGRAMS.values())
    return subprocess.run(command, check=True, stdin=subprocess.DEVNULL, capture_output=True,
                          encoding="utf-8", timeout=60,
                          env={**os.environ, "PATH": f"{path}:{os.environ['PATH']}",
                               "ORVEX_NAMES": str(names)}).stdout


def listed(text, heading):
    """The names in one section of a help text."""
    section = re.search(rf"^{heading}:\n((?:  .*\n)+)", text, re.MULTILINE)
    rows = re.findall(r"^  (\S+)", section[1] if section else "", re.MULTILINE)
    return sorted(name for row in rows for name in row.split(","))


def expectations():
    """Command lines without their last word, with the names that --help lists there."""
    for name, path in PROGRAMS.items():
        top = run(path, "--help")
        for command in [[], *([word] for word in listed(top, "Subcommands"))]:
            text = run(path, *command, "--help")
            yield [name, *command], listed(text, "Options"), listed(text, "Subcommands")


class CompletionTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def bash(self, *words):
        script = self.folder / words[0]
        script.write_text(run(PROGRAMS[words[0]], "--completion", "bash"), "utf-8")
        return sorted(run("bash", "-c", BASH, "bash", str(script), PROGRAMS[words[0]], *words[1:],
                          names=self.folder / "names").split())

    def zsh(self, *lines):
        for name, path in PROGRAMS.items():
            (self.folder / f"_{name}").write_text(run(path, "--completion", "zsh"), "utf-8")
        texts = run("zsh", "-f", "-c", ZSH, "zsh", str(self.folder), *lines,
                    names=self.folder / "names").splitlines()
        self.assertEqual(len(texts), len(lines))
        return [sorted(set(re.findall(r"\\<([^<>]*)\\>", text)) - {"end"}) for text in texts]

    def test_bash_offers_what_help_lists(self):
        for words, options, commands in expectations():
            self.assertEqual(self.bash(*words, "-"), options, words)
            if commands:
                self.assertEqual(self.bash(*words, ""), sorted(options + commands))

    def test_bash_knows_values(self):
        (self.folder / "some.file").touch()
        self.assertIn("lo", self.bash("orvexctl", "get", "-i", ""))
        self.assertEqual(self.bash("orvexctl", "--wait", ""), [])
        self.assertEqual(self.bash("orvexctl", "--wait", "2", "-q", "re"), ["record"])
        self.assertEqual(self.bash("orvexctl", "get", "-W", "send", "--fa"), [])
        (self.folder / "names").write_text("1:2 studio1\n1:2:out3 studio1.onair\n", "utf-8")
        (self.folder / "others").write_text("1:2 elsewhere\n", "utf-8")
        self.assertEqual(self.bash("orvexctl", "get", "-n", f"{self.folder}/others", "e"), ["elsewhere"])
        for words, offered in [
                (("get", "st"), ["studio1", "studio1.onair"]), (("get", "studio1:o"), PINS[5:]),
                (("get", "1:2", "1:2:in"), [pin.replace("studio1", "1:2") for pin in PINS[:5]]),
                (("list", "stu"), ["studio1"]),
                (("set", "studio1"), ["studio1.onair=", "studio1:"]),
                (("wait", "studio1.onair="), [f"studio1.onair={x}" for x in "H L high low".split()]),
                (("record", "x", "studio1."), ["studio1.onair"])]:
            self.assertEqual(self.bash("orvexctl", *words), sorted(offered), words)
        for words in [("orvexctl", "record"), ("orvexctl", "send", "-r"), ("orvex-sim",)]:
            self.assertEqual(self.bash(*words, f"{self.folder}/some"), [f"{self.folder}/some.file"])

    @unittest.skipUnless(shutil.which("zsh"), "no zsh")
    def test_zsh_offers_what_help_lists(self):
        expected = list(expectations())
        got = self.zsh(*[" ".join(words) + " -" for words, _, _ in expected])
        for (words, options, _), offered in zip(expected, got):
            self.assertEqual(offered, options, words)
        (self.folder / "names").write_text("1:2:out3 lamp\n1:2 studio1\n", "utf-8")
        (self.folder / "others").write_text("1:2 studio2\n", "utf-8")
        commands, interfaces, nothing, pins, levels, others = self.zsh(
            "orvexctl ", "orvexctl get -i ", "orvexctl -W ", "orvexctl get studio1:i",
            "orvexctl set lamp=", f"orvexctl -n {self.folder}/others get studio")
        self.assertEqual(others, ["studio2"])
        self.assertEqual(pins, PINS[:5])
        self.assertEqual(levels, ["lamp=H", "lamp=L", "lamp=high", "lamp=low"])
        self.assertEqual(commands, expected[0][2])
        self.assertIn("lo", interfaces)
        self.assertEqual(nothing, [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
