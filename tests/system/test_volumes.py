"""CoreUtilsGetFileSystems and the system's code page, on both platforms."""

import base64

NO_DRIVE, REMOVABLE, FIXED, REMOTE, DISC, MEMORY = range(1, 7)


def volumes(agent):
    code, container = agent.call("CoreUtilsGetFileSystems")
    assert code == 0
    rows = container["Values"]
    assert all(list(row) == ["Name", "DriveType", "VolumeName"] for row in rows)
    return {row["Name"]: row for row in rows}


def test_CoreUtilsGetFileSystems_tells_the_drives_in_their_order(agent):
    found = volumes(agent)
    assert "C:" in found
    assert list(found) == sorted(found)
    for row in found.values():
        assert REMOVABLE <= row["DriveType"] <= MEMORY


def test_CoreUtilsGetFileSystems_tells_configured_drives(make_agent, platform, small_disk,
                                                         tmp_path):
    agent = make_agent(f"[drives]\nC = /\nE = {small_disk}\nF = {tmp_path}/none\n")
    agent.add_users()
    agent.start()
    found = volumes(agent)
    if platform == "linux":
        assert list(found) == ["C:", "E:"]
        assert found["E:"] == {"Name": "E:", "DriveType": MEMORY, "VolumeName": ""}
    else:
        # The system's own drives rule there: the setting changes nothing.
        assert "C:" in found and "E:" not in found
    assert agent.stop() == 0


def test_texts_of_the_configured_code_page_are_read_as_such(make_agent, platform, tmp_path):
    file = tmp_path / "text.txt"
    file.write_bytes("日本".encode("cp932"))
    agent = make_agent("[system]\ncode_page = 932\n")
    agent.add_users()
    agent.start()
    code, container = agent.call("CoreUtilsReadFile", Path=agent.path(file), Offset=0, Length=100)
    assert code == 0
    text = base64.b64decode(container["Result"]).decode()
    # On Windows the system's own code page rules; Wine's here is no Japanese one.
    assert (text == "日本") == (platform == "linux")
    assert agent.stop() == 0


def test_an_unknown_code_page_is_named_when_the_agent_starts(make_agent):
    agent = make_agent("[system]\ncode_page = 4711\n")
    done = agent.command("config", "check")
    assert done.returncode != 0
    assert b"code_page = 4711" in done.stdout + done.stderr
