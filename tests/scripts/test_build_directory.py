"""scripts/build-directory: where root builds in the tree of another account. Needs root."""

import os
import pathlib
import shutil
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
SOMEBODY = 12345


@pytest.fixture
def tree(tmp_path):
    """A tree with the script in it."""
    # Its owner must reach it.
    for directory in (tmp_path, *tmp_path.parents):
        if not directory.stat().st_mode & 0o001:
            directory.chmod(directory.stat().st_mode | 0o011)
    made = tmp_path / "tree"
    (made / "scripts").mkdir(parents=True)
    shutil.copy(ROOT / "scripts/build-directory", made / "scripts")
    yield made
    if (made / "build").is_symlink():
        shutil.rmtree(os.readlink(made / "build"), ignore_errors=True)


def make(tree, **options):
    subprocess.run([tree / "scripts/build-directory"], check=True, capture_output=True, **options)
    return tree / "build"


def give_away(tree):
    for path in (tree, tree / "scripts", tree / "scripts/build-directory"):
        os.chown(path, SOMEBODY, SOMEBODY)


def test_a_tree_of_roots_has_its_build_in_it(tree):
    assert make(tree).is_dir() and not make(tree).is_symlink()


@pytest.mark.parametrize("spoil", [give_away, lambda tree: tree.chmod(0o777),
                                   lambda tree: os.chown(tree.parent, SOMEBODY, SOMEBODY)],
                         ids=["another account's", "everybody's", "below another account's"])
def test_where_others_could_change_the_tree_the_build_is_elsewhere_and_roots_alone(tree, spoil):
    spoil(tree)
    build = make(tree)
    assert build.is_symlink()
    place = build.resolve()
    (place / "kept").touch()
    for above in (place, *place.parents):
        status = above.stat()
        assert status.st_uid == 0 and not status.st_mode & 0o022, above
    assert (make(tree) / "kept").exists()


def test_a_link_of_roots_gives_way_to_the_owner_of_the_tree_and_to_a_new_machine(tree):
    give_away(tree)
    place = make(tree).resolve()
    place.rmdir()
    assert make(tree).resolve().is_dir()
    build = make(tree, user=SOMEBODY, group=SOMEBODY, extra_groups=[])
    assert build.is_dir() and not build.is_symlink() and build.stat().st_uid == SOMEBODY
    place.rmdir()


def test_a_build_of_the_owners_stays_and_root_is_told_that_no_agent_starts_from_it(tree):
    give_away(tree)
    build = make(tree, user=SOMEBODY, group=SOMEBODY, extra_groups=[])
    done = subprocess.run([tree / "scripts/build-directory"], check=True, capture_output=True, text=True)
    assert build.is_dir() and not build.is_symlink()
    assert "no agent of root's starts from it" in done.stderr
