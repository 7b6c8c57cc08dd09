"""What a screen reader finds in the windows of a desktop: as a program it prints that as JSON. Of a
text that scrolls it is what stands there from the first line on that can be seen."""

import json
import subprocess

from agents import clean_environment

READ_TIMEOUT_S = 20


def read_screen(environment):
    """(role, name) of everything that can be read, in order."""
    done = subprocess.run(["/usr/bin/python3", __file__], env=clean_environment(**environment),
                          capture_output=True, timeout=READ_TIMEOUT_S, check=True)
    return [tuple(row) for row in json.loads(done.stdout)]


def read():
    import gi
    gi.require_version("Atspi", "2.0")
    from gi.repository import Atspi

    found = []

    def shown_text(accessible):
        place = accessible.get_extents(Atspi.CoordType.SCREEN)
        text = accessible.get_text_iface()
        first = text.get_offset_at_point(place.x + 10, place.y + 10, Atspi.CoordType.SCREEN)
        return Atspi.Text.get_text(text, first, text.get_character_count())

    def walk(accessible):
        role = accessible.get_role_name()
        found.append((role, shown_text(accessible) if role == "text" else accessible.get_name()))
        for index in range(accessible.get_child_count()):
            child = accessible.get_child_at_index(index)
            if child:
                walk(child)

    walk(Atspi.get_desktop(0))
    return found


if __name__ == "__main__":
    print(json.dumps(read()))
