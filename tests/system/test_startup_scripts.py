"""Scripts that the module runs when it starts, as its INI file names them."""

import json

import pytest

INI = """\
; what runs when the agent starts
[Run]
C = c.mlx

# once
[RunOnce]\r
A = a.mlx\r
\tb=b.mlx  \r
; old = z.mlx
"""
INI_AFTERWARDS = INI.replace("A = a.mlx\r\n", "; A=a.mlx\r\n").replace(
    "\tb=b.mlx  \r\n", "; b=b.mlx\r\n")


@pytest.fixture
def letters(tmp_path):
    """The file to which each script adds its letter."""
    return tmp_path / "letters"


@pytest.fixture
def prepared(make_agent, letters):
    """An agent with scripts a to c and an INI file of the test's choice."""

    def prepare(content, missing=""):
        agent = make_agent()
        scripts = agent.home / "data/ZelCoreUtils"
        scripts.mkdir(parents=True)
        path = json.dumps(agent.path(letters).replace("\\", "/"))
        for letter in "abc":
            if letter not in missing:
                (scripts / f"{letter}.mlx").write_text(f"""
                    function main()
                      local file = assert(io.open({path}, "ab"))
                      file:write("{letter.upper()}")
                      file:close()
                    end
                    """)
        ini_of(agent).write_bytes(content if isinstance(content, bytes) else content.encode())
        return agent

    return prepare


def ini_of(agent):
    return agent.home / "config/ZelCoreUtils.ini"


def run_once(agent):
    """Starts and stops the agent."""
    agent.start()
    assert agent.stop() == 0, agent.describe()


def test_what_runs_once_runs_before_what_runs_always_and_becomes_comments(prepared, letters):
    agent = prepared(INI)
    run_once(agent)
    assert letters.read_text() == "ABC"
    assert ini_of(agent).read_bytes() == INI_AFTERWARDS.encode()
    # Nothing is left of the replacements.
    assert [path.name for path in agent.home.glob("config/*ZelCoreUtils*")] == ["ZelCoreUtils.ini"]
    assert list(agent.home.glob("config/.zel-*")) == []

    run_once(agent)
    assert letters.read_text() == "ABCC"
    assert ini_of(agent).read_bytes() == INI_AFTERWARDS.encode()


@pytest.mark.parametrize("encoding", ["utf-8-sig", "utf-16"])
def test_the_file_keeps_its_encoding(prepared, letters, encoding):
    agent = prepared(INI.encode(encoding))
    run_once(agent)
    assert letters.read_text() == "ABC"
    assert ini_of(agent).read_bytes() == INI_AFTERWARDS.encode(encoding)


def test_bytes_that_are_no_text_stay(prepared, letters):
    before = b"; \xff\x00\xc3\n[RunOnce]\nA=a.mlx\n\xfe = \xfd\x01\nC=c.mlx"
    after = b"; \xff\x00\xc3\n[RunOnce]\n; A=a.mlx\r\n; \xfe=\xfd\x01\r\n; C=c.mlx\r\n"
    agent = prepared(before)
    run_once(agent)
    assert letters.read_text() == "AC"
    assert ini_of(agent).read_bytes() == after


def test_a_read_only_file_does_not_hold_up_the_start(prepared, letters):
    agent = prepared(INI)
    ini_of(agent).chmod(0o444)
    run_once(agent)
    # What is to follow A waits until A can be marked as done.
    assert letters.read_text() == "AC"
    assert ini_of(agent).read_bytes() == INI.encode()
    refused = [line for line in agent.log().splitlines() if "ZelCoreUtils.ini failed" in line]
    assert len(refused) == 1 and "read-only" in refused[0], refused

    ini_of(agent).chmod(0o644)
    run_once(agent)
    assert letters.read_text() == "ACABC"
    assert ini_of(agent).read_bytes() == INI_AFTERWARDS.encode()


def test_a_missing_script_does_not_stop_the_others(prepared, letters):
    agent = prepared(INI, missing="a")
    run_once(agent)
    assert letters.read_text() == "BC"
    assert ini_of(agent).read_bytes() == INI_AFTERWARDS.encode()


def test_a_script_that_fails_does_not_stop_the_others(prepared, letters):
    agent = prepared(INI)
    (agent.home / "data/ZelCoreUtils/a.mlx").write_text("function main( syntax error")
    (agent.home / "data/ZelCoreUtils/b.mlx").write_text("function main() error('no') end")
    run_once(agent)
    assert letters.read_text() == "C"
    assert ini_of(agent).read_bytes() == INI_AFTERWARDS.encode()


def test_entries_of_one_name_take_turns(prepared, letters):
    agent = prepared("[RunOnce]\nX=a.mlx\nx=b.mlx\n[Run]\nX=c.mlx\nX=a.mlx\n")
    run_once(agent)
    assert letters.read_text() == "ABC"
    assert ini_of(agent).read_bytes() == (
        b"[RunOnce]\n; X=a.mlx\r\n; x=b.mlx\r\n[Run]\nX=c.mlx\nX=a.mlx\n")


def test_a_script_may_change_the_file(prepared, letters):
    agent = prepared("[RunOnce]\nA=change.mlx\nB=b.mlx\n")
    path = json.dumps(agent.path(ini_of(agent)).replace("\\", "/"))
    (agent.home / "data/ZelCoreUtils/change.mlx").write_text(f"""
        function main()
          local file = assert(io.open({path}, "wb"))
          file:write("; new\\n[RunOnce]\\nC=c.mlx\\nA=change.mlx\\n")
          file:close()
        end
        """)
    run_once(agent)
    # The changed file counts: A becomes a comment where it stands now.
    assert letters.read_text() == "C"
    assert ini_of(agent).read_bytes() == b"; new\n[RunOnce]\n; C=c.mlx\r\n; A=change.mlx\r\n"
