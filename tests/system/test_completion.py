"""What bash completes zelctl by knows what zelctl itself tells."""

import re
import subprocess

from agents import program

ZELCTL = program("linux", "zelctl")


def completed(*words):
    """What bash offers for the last word."""
    script = ('source <("$0" completion bash); COMP_WORDS=(zelctl "$@"); COMP_CWORD=$#; _zelctl; '
              'printf "%s\\n" "${COMPREPLY[@]}"')
    done = subprocess.run(["bash", "-c", script, *ZELCTL, *words], check=True, capture_output=True,
                          text=True)
    return done.stdout.split()


def told(section, *verbs):
    """The names that `zelctl VERB... --help` lists in a section."""
    text = subprocess.run([*ZELCTL, *verbs, "--help"], check=True, capture_output=True,
                          text=True).stdout
    lines = re.search(rf"(?ms)^{section}:\n(.*?)(?:\n\n|\Z)", text)
    names = re.findall(r"(?m)^  (\S+)", lines.group(1)) if lines else []
    return {name for word in names for name in word.split(",")}


def test_every_verb_and_option_of_the_help_is_completed():
    verbs = told("Subcommands")
    assert len(verbs) > 30
    assert verbs <= set(completed(""))
    for verb in verbs:
        below = told("Subcommands", verb)
        assert below <= set(completed(verb, "")), verb
        for path in [(verb, name) for name in below] or [(verb,)]:
            long = {name for name in told("Options", *path) if name.startswith("--")}
            assert long <= set(completed(*path, "--")), path


def test_only_what_begins_as_the_word_is_offered():
    assert completed("tas") == ["tasks"]
    assert set(completed("tasks", "")) >= {"add", "note", "close", "list"}
    assert set(completed("--user", "ann", "tasks", "add", "--pri")) == {"--priority"}
    assert completed("cat", "/etc/pas") == []
