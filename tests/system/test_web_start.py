"""CoreUtilsConfigureJWS rewrites the console's web-start descriptors; where attachments go."""

import subprocess

import pytest

from agents import agent_path
from uploads import MIB, SUCCESS, new_log

DESCRIPTOR = """<?xml version="1.0" encoding="utf-8"?>\r
<!-- Grüße, 日本: stays as it is -->\r
<jnlp spec="1.0+" codebase="http://old.example.net:1610/console/" href="console.jnlp">\r
  <information><homepage href="https://www.example.org/help/"/></information>\r
  <resources>\r
    <property name="kvl-servername" value="old.example.net"/>\r
    <property name="kvl-serverport" value="1610"/>\r
    <property name="kvl-ssl" value="0"/>\r
    <property name="kvl-other" value="kept"/>\r
  </resources>\r
</jnlp>\r
"""


def expected(scheme, address, port, ssl_mode):
    return (DESCRIPTOR.replace("http://old.example.net:1610/", f"{scheme}://{address}:{port}/")
            .replace('kvl-servername" value="old.example.net"',
                     f'kvl-servername" value="{address}"')
            .replace('kvl-serverport" value="1610"', f'kvl-serverport" value="{port}"')
            .replace('kvl-ssl" value="0"', f'kvl-ssl" value="{ssl_mode}"'))


# The odd ones: bytes that are no text, a name in capitals, a file of another kind, one that stands
# deeper.
def fill(directory):
    odd = DESCRIPTOR.encode() + b"\xff\xfe\x00 not text\r\n"
    others = {
        "readme.txt": DESCRIPTOR.encode(), "console.jnlp.bak": DESCRIPTOR.encode(),
        "inner/deeper.jnlp": DESCRIPTOR.encode(), "empty.txt": b"", "image.png": bytes(range(256)),
    }
    descriptors = {"console.jnlp": DESCRIPTOR.encode(), "second one.jnlp": odd,
                   "THIRD.JNLP": DESCRIPTOR.encode()}
    for name, content in {**others, **descriptors}.items():
        path = directory / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
    return others, descriptors


MODES = [("plain", "http", "0"), ("ssl sent", "https", "2"),
         ("ssl", "https", "2"), ("ssl ext", "https", "3")]


@pytest.mark.parametrize("mode, scheme, ssl_mode", MODES, ids=[mode[0] for mode in MODES])
def test_CoreUtilsConfigureJWS_rewrites_the_descriptors_and_nothing_else(
        fleet, platform, mode, scheme, ssl_mode):
    agent = fleet.pair(mode, platform, platform)[1]
    directory = agent.home / "ui/console/jws/jnlp"
    others, descriptors = fill(directory)

    code, _ = agent.call("CoreUtilsConfigureJWS", MasterAddress="master.example.net")

    assert code == SUCCESS
    port = agent.address()[1]
    text = expected(scheme, "master.example.net", port, ssl_mode).encode()
    assert (directory / "console.jnlp").read_bytes() == text
    assert (directory / "THIRD.JNLP").read_bytes() == text
    assert (directory / "second one.jnlp").read_bytes() == (
        text + b"\xff\xfe\x00 not text\r\n")
    for name, content in others.items():
        if name != "inner/deeper.jnlp":
            assert (directory / name).read_bytes() == content, name
    found = sorted(path.name for path in directory.rglob("*") if path.is_file())
    assert found == sorted(path.split("/")[-1] for path in {**others, **descriptors})

    # A second time with the same address changes nothing.
    assert agent.call("CoreUtilsConfigureJWS", MasterAddress="master.example.net")[0] == SUCCESS
    assert (directory / "console.jnlp").read_bytes() == text


def test_descriptors_in_deeper_directories_are_left_alone(fleet, platform):
    agent = fleet.pair("plain", platform, platform)[1]
    directory = agent.home / "ui/console/jws/jnlp"
    others, _ = fill(directory)
    assert agent.call("CoreUtilsConfigureJWS", MasterAddress="other.example.net")[0] == SUCCESS
    assert (directory / "inner/deeper.jnlp").read_bytes() == others["inner/deeper.jnlp"]


def test_an_address_with_special_characters_is_taken_as_it_stands(fleet, platform):
    agent = fleet.pair("plain", platform, platform)[1]
    directory = agent.home / "ui/console/jws/jnlp"
    fill(directory)
    assert agent.call("CoreUtilsConfigureJWS", MasterAddress=r"a$1\1&b")[0] == SUCCESS
    assert (directory / "console.jnlp").read_bytes() == expected(
        "http", r"a$1\1&b", agent.address()[1], "0").encode()


def test_two_urls_of_one_line_become_one(fleet, platform):
    agent = fleet.pair("plain", platform, platform)[1]
    directory = agent.home / "ui/console/jws/jnlp"
    fill(directory)
    (directory / "console.jnlp").write_bytes(
        b"<a href='http://one:1/x'/> and <b href='https://two:2/y'/>\r\n"
        b"<c href='http://three:3/'/>\n")
    assert agent.call("CoreUtilsConfigureJWS", MasterAddress="m")[0] == SUCCESS
    url = f"http://m:{agent.address()[1]}/"
    assert (directory / "console.jnlp").read_bytes() == (
        f"<a href='{url}y'/>\r\n<c href='{url}'/>\n").encode()


@pytest.mark.parametrize("port", [0, 1, 65536, -1])
def test_the_port_is_the_agents_own_whatever_is_asked_for(fleet, platform, port):
    agent = fleet.pair("plain", platform, platform)[1]
    directory = agent.home / "ui/console/jws/jnlp"
    fill(directory)
    assert agent.call("CoreUtilsConfigureJWS", MasterAddress="m", MasterHttpPort=port)[0] == SUCCESS
    assert (directory / "console.jnlp").read_bytes() == expected(
        "http", "m", agent.address()[1], "0").encode()


def test_descriptors_that_cannot_be_read_or_written_stay_and_hold_nothing_up(fleet, platform):
    agent = fleet.pair("plain", platform, platform)[1]
    directory = agent.home / "ui/console/jws/jnlp"
    fill(directory)
    # Too large to be read; what is mounted on a file keeps others from taking its place.
    unreadable, unwritable = directory / "a large one.jnlp", directory / "a busy one.jnlp"
    unwritable.write_bytes(DESCRIPTOR.encode())
    with open(unreadable, "wb") as file:
        file.truncate(65 * MIB)
    subprocess.run(["mount", "--bind", unwritable, unwritable], check=True)
    try:
        (code, _), log = new_log(
            agent, lambda: agent.call("CoreUtilsConfigureJWS", MasterAddress="m"))
    finally:
        subprocess.run(["umount", unwritable], check=True)

    assert code == SUCCESS
    assert unwritable.read_bytes() == DESCRIPTOR.encode()
    assert unreadable.stat().st_size == 65 * MIB
    assert unreadable.name in log and unwritable.name in log
    assert (directory / "console.jnlp").read_bytes() == expected(
        "http", "m", agent.address()[1], "0").encode()
    # Both are gone before other tests look at the directory.
    unreadable.unlink()
    unwritable.unlink()


def test_without_descriptors_there_is_nothing_to_do(agent):
    assert agent.call("CoreUtilsConfigureJWS", MasterAddress="master.example.net")[0] == SUCCESS
    assert not (agent.home / "ui").exists()


def test_CoreUtilsGetMasterAttachmentsPath_tells_a_path_below_the_data(agent, platform):
    code, container = agent.call("CoreUtilsGetMasterAttachmentsPath")
    assert code == SUCCESS
    separator = "\\" if platform == "windows" else "/"
    assert container["Path"] == (agent_path(platform, agent.home / "data") + separator
                                 + "TarnDatabase\\attachments\\temp")
