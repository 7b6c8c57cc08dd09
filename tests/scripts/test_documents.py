"""The documents name what exists: links, files, settings, verbs and options of zelctl."""

import pathlib
import re
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
PROGRAMS = {"agent/service": "zelagent", "agent/zelctl": "zelctl"}


def tracked_files():
    names = subprocess.run(["git", "-C", ROOT, "ls-files", "-z"], capture_output=True, text=True,
                           timeout=60, check=True).stdout.split("\0")
    return [name for name in names if name and (ROOT / name).exists()]


TRACKED = tracked_files()
FOLDERS = {str(folder) for name in TRACKED for folder in pathlib.PurePosixPath(name).parents}
DOCUMENTS = [name for name in TRACKED if name.endswith(".md")]


def text_of(name):
    return (ROOT / name).read_text(encoding="utf-8")


TEXTS = {name: text_of(name) for name in DOCUMENTS}


def without_blocks(text):
    """The text without fenced blocks, whose content is no Markdown."""
    return re.sub(r"^( *)```.*?^\1```", "", text, flags=re.M | re.S)


def anchors_of(text):
    """The anchors of its headings, as GitHub makes them."""
    anchors = set()
    for heading in re.findall(r"^#+ +(.+?)\s*$", without_blocks(text), flags=re.M):
        plain = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", heading).lower()
        anchor = re.sub(r"[^\w\- ]", "", plain).replace(" ", "-")
        number = 0
        while f"{anchor}-{number}" in anchors or (not number and anchor in anchors):
            number += 1
        anchors.add(f"{anchor}-{number}" if number else anchor)
    return anchors


def links_of(text):
    prose = re.sub(r"`[^`]*`", "", without_blocks(text))
    return [link for link in re.findall(r"\]\(([^)\s]+)\)", prose) if "://" not in link]


def broken_links(name, text):
    for link in links_of(text):
        path, _, anchor = link.partition("#")
        target = (ROOT / name).parent / path
        if not target.exists():
            yield f"{name}: {link}: no such file"
            continue
        there = target.read_text(encoding="utf-8") if path and anchor else text
        if anchor and anchor not in anchors_of(there):
            yield f"{name}: {link}: no such heading"


def test_links_lead_somewhere():
    assert sum(len(links_of(text)) for text in TEXTS.values()) > 100
    assert [what for name, text in TEXTS.items() for what in broken_links(name, text)] == []


def test_a_broken_link_and_a_broken_anchor_are_found():
    text = "# One\n[a](#one) [b](#two) [c](no/such.md) `[d](x)`\n"
    assert list(broken_links("README.md", text)) == [
        "README.md: #two: no such heading", "README.md: no/such.md: no such file"]


def is_there(path):
    path = path.rstrip("/.,")
    if "*" in path:
        return any(ROOT.glob(path))
    return path in FOLDERS or any(path + end in TRACKED for end in ("", ".h", ".cpp", ".py"))


def files_named(text):
    """What stands in backticks and begins with a folder of the tree."""
    tops = {folder for folder in FOLDERS if "/" not in folder and folder != "."}
    for code in re.findall(r"`([^`\n]+)`", without_blocks(text)):
        word = code.split()[0] if code.strip() else ""
        if re.fullmatch(r"[\w.*-]+(/[\w.*-]+)+/?", word) and word.split("/")[0] in tops:
            yield word


def test_files_that_are_named_exist():
    # The changelog may name what is gone. NAME stands for others, in "agent/NAME" for logins.
    named = [(name, path) for name, text in TEXTS.items() if name != "CHANGELOG.md"
             for path in files_named(text) if "NAME" not in path]
    assert len(named) > 150
    assert [f"{name}: {path}" for name, path in named if not is_there(path)] == []


def test_every_setting_has_its_row():
    source = text_of("agent/libZelCore/settings_keys.cpp")
    keys = re.findall(r'^ +\{"(\w+)", "(\w+)",', source, flags=re.M)
    assert len(keys) > 40
    section, rows = "", set()
    for line in TEXTS["docs/configuration.md"].splitlines():
        row = re.match(r"\| (?:`(\w+)` )?\| `(\w+)`", line)
        if row:
            section = row[1] or section
            rows.add((section, row[2]))
    assert [key for key in keys if key not in rows] == []


def test_the_actions_for_administrators_are_named():
    source = text_of("agent/libZelCore/known_actions.cpp")
    default = re.findall(r'"(\w+)"', re.search(r"kAdministratorsOnly\[\] = \{([^}]*)\}", source)[1])
    assert len(default) > 20
    page = TEXTS["docs/configuration.md"] + TEXTS.get("docs/consoles-and-users.md", "")
    listed = re.search(r"these are for administrators: (.*?)\. ", page, flags=re.S)[1]
    assert sorted(re.findall(r"`(\w+)`", listed)) == sorted(default)


def test_the_actions_that_the_core_knows_by_name_exist():
    known = set(re.findall(r'"((?:Agent|CoreUtils|HttpProtocol|TrnDb)\w+)"',
                           text_of("agent/libZelCore/known_actions.cpp")))
    assert len(known) > 30
    registered = "".join(text_of(name) for name in (
        "module/registry.cpp", "agent/task_database/module_main.cpp",
        "agent/libZelCore/core_actions.cpp"))
    assert [name for name in sorted(known) if not re.search(rf'"{name}[" ]', registered)] == []


def test_the_actions_are_counted():
    rows = re.findall(r'^ +\{"CoreUtils\w+', text_of("module/registry.cpp"), flags=re.M)
    assert len(rows) > 40
    told = re.findall(r"\*\*(\d+) actions\*\*", TEXTS["README.md"])
    told += re.findall(r"of\s+the (\d+) actions", TEXTS["docs/reliability.md"])
    assert told == [str(len(rows))] * 2


def test_every_layer_has_its_row():
    layers = re.findall(r'^    "([\w/]+)": \(', text_of("scripts/check-includes"), flags=re.M)
    assert len(layers) > 10
    rows = re.findall(r"^\| (`[^|]*`) \|", TEXTS["CONTRIBUTING.md"], flags=re.M)
    told = {folder for row in rows for folder in re.findall(r"`([\w/]+?)/?`", row)}
    # No source stands in agent/ itself.
    assert [folder for folder in layers if folder not in told | {"agent"}] == []


def sources_of(folder):
    return "".join(text_of(name) for name in TRACKED
                   if name.startswith(folder + "/") and name.endswith(".cpp"))


def verbs_of(folder):
    """The program's verbs, and those below them."""
    text = sources_of(folder)
    constants = dict(re.findall(r'(k\w+Verb)(?:\[\])? = "([a-z0-9-]+)"', text))
    calls = r'(?:\bAdd\w*|add_subcommand)\(\s*(?:\*?\w+,\s*)?("[a-z0-9-]+"|k\w+Verb),'
    return {constants.get(name, name.strip('"')) for name in re.findall(calls, text)}


def options_of(folder):
    return set(re.findall(r"--[a-z][a-z-]+", sources_of(folder)))


def commands_in(text, program):
    """What is behind the program's name in blocks, continued lines joined."""
    text = re.sub(r"\\\n\s*", " ", text)
    pattern = rf"^(?:    |\$ |> )?\s*(?:\$ )?(?:build/linux/bin/)?{program} (.*)$"
    return re.findall(pattern, text, flags=re.M)


def what_is_wrong(line, verbs, options):
    """Of what an example gives to a program; what is quoted, piped or handed on does not count."""
    own = re.split(r" -- |[|;&#>]", re.sub(r"'[^']*'|\"[^\"]*\"", "''", line))[0].split()
    first = own[0] if own else ""
    if re.fullmatch(r"[a-z][a-z0-9-]*", first) and first not in verbs:
        yield f"no verb {first}"
    for word in own:
        option = re.match(r"--[a-z][a-z-]*", word)
        if option and option[0] not in options:
            yield f"no option {option[0]}"


@pytest.mark.parametrize("folder, program", PROGRAMS.items())
def test_commands_in_examples_exist(folder, program):
    verbs, options = verbs_of(folder), options_of(folder) | {"--help", "--version"}
    examples = [(name, line) for name, text in TEXTS.items() for line in commands_in(text, program)]
    assert len(examples) > 5
    assert [f"{name}: {program} {line}: {what}" for name, line in examples
            for what in what_is_wrong(line, verbs, options)] == []


def test_a_verb_an_option_and_a_file_that_do_not_exist_are_found():
    text = "    zelctl ls /tmp --sorted size\n$ zelctl list --sort 'a --b' | tail --lines 2\n"
    verbs, options = verbs_of("agent/zelctl") - {"list"}, options_of("agent/zelctl")
    wrong = [what for line in commands_in(text, "zelctl")
             for what in what_is_wrong(line, verbs, options)]
    assert wrong == ["no option --sorted", "no verb list"]
    named = list(files_named("`agent/zelctl/no_such.cpp --x`, `scripts/test` and `data/users`"))
    assert [path for path in named if not is_there(path)] == ["agent/zelctl/no_such.cpp"]


def test_every_verb_is_told():
    everything = "\n".join(TEXTS.values())
    verbs = verbs_of("agent/zelctl")
    assert len(verbs) > 40
    call = r"zelctl [\w ./:'=-]*\b{0}\b|scripts/run {0}\b|`{0}`"
    assert [verb for verb in sorted(verbs) if not re.search(call.format(verb), everything)] == []


PAGES = {"packaging/debian/man/zelagent.8.in": "agent/service/main.cpp",
         "packaging/debian/man/zelctl.1.in": "agent/zelctl/main.cpp",
         "packaging/debian/man/zelproxy.1.in": "agent/proxy/main.cpp"}


def declared_off_windows(source):
    """What declares a program's command line; Windows alone has services."""
    return re.sub(r"^void AddServiceCommands.*?^}$", "", text_of(source), flags=re.M | re.S)


@pytest.mark.parametrize("page, source", PAGES.items())
def test_manual_pages_have_the_options_of_their_programs(page, source):
    told = re.findall(r"--[a-z][a-z-]+", text_of(page).replace("\\-", "-"))
    options = re.findall(r'(?:option|flag)\("(--[a-z][a-z-]+)"', declared_off_windows(source))
    assert len(options) > 2
    assert sorted(set(told)) == sorted(set(options))


def test_the_manual_page_of_the_agent_has_its_commands():
    commands = re.findall(r'(user|config)->add_subcommand\("([a-z]+)"',
                          declared_off_windows("agent/service/main.cpp"))
    assert len(commands) > 5
    page = text_of("packaging/debian/man/zelagent.8.in")
    assert [f"{group} {verb}" for group, verb in commands
            if f".B zelagent {group} {verb}\n" not in page] == []


def is_for_newcomers(folder):
    top, _, below = folder.partition("/")
    return top not in (".", ".ci") and "/" not in below and (
        not below or top in ("agent", "docs", "packaging", "tests"))


def test_folders_have_a_readme():
    wanted = sorted(filter(is_for_newcomers, FOLDERS))
    assert len(wanted) > 25
    assert [folder for folder in wanted if f"{folder}/README.md" not in TRACKED] == []
