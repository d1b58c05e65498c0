"""List the sources of a compile_commands.json that static analysis covers.

Tests are left out: what the test macros expand to is not ours to judge.
"""

import json
import os
import sys


def main() -> None:
    with open(sys.argv[1], encoding="utf-8") as file:
        commands = json.load(file)
    root = os.getcwd()
    files = {os.path.join(command["directory"], command["file"]) for command in commands}
    for path in sorted(os.path.relpath(file, root) for file in files):
        if path.split("/", 1)[0] in ("src", "platform", "tools"):
            print(path)


if __name__ == "__main__":
    main()
