"""Check that includes follow the dependency rule of the source tree.

A folder of src/ includes only its own headers, those of the folders below it in the table, and the
libraries named beside them. platform/ knows nothing of src/; the programs of tools/ use public
headers only.
"""

import pathlib
import re
import sys
from dataclasses import dataclass

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')


@dataclass(frozen=True)
class Rule:
    headers: tuple[str, ...]  # folders, or single headers where only those may be used
    libraries: tuple[str, ...]


CORE = ("core/log.h", "core/state.h", "core/guards.h", "core/no_memory.h", "core/runtime_file.h")

RULES = {
    "core": Rule((), ()),
    "config": Rule(CORE, ("sqlite3.h", "kt/protocol_common.h")),
    "device": Rule(CORE, ("kt/platform.h", "kt/event_agent.h", "kt/net.h", "kt/rest_time.h")),
    "traffic": Rule(CORE + ("device/clock.h",), ("parson.h", "kt/protocol_common.h")),
    "tags": Rule(CORE + ("config/model.h", "device/clock.h", "can/runtime.h"), ("kt/dx.h",)),
    "can": Rule(
        CORE + ("config/", "device/", "traffic/", "tags/"),
        ("kt/platform.h", "kt/dx.h", "kt/protocol_common.h"),
    ),
    "rest": Rule(
        CORE + ("config/", "device/", "traffic/"),
        ("kt/rest.h", "kt/rest_time.h", "parson.h", "sqlite3.h"),
    ),
}
SERVICE_ENTRY = {"core/main.cpp", "core/service.cpp", "core/service.h"}
LIBRARIES = re.compile(r"^(kt/.*|parson\.h|sqlite3\.h|microhttpd\.h|jansson\.h)$")


def includes(path: pathlib.Path):
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        match = INCLUDE.match(line)
        if match:
            yield number, match.group(1) == '"', match.group(2)


def sources(folder: pathlib.Path):
    return sorted(p for p in folder.rglob("*") if p.suffix in (".cpp", ".h"))


def allowed(folder: str, quoted: bool, header: str) -> bool:
    rule = RULES.get(folder)
    if rule is None:
        return False
    if quoted:
        folders = (folder + "/", *(h for h in rule.headers if h.endswith("/")))
        return header in rule.headers or header.startswith(folders)
    return not LIBRARIES.match(header) or header in rule.libraries


def check_service(root: pathlib.Path):
    src = root / "src"
    for path in sources(src):
        relative = path.relative_to(src)
        if relative.as_posix() in SERVICE_ENTRY:
            continue
        folder = relative.parts[0]
        for number, quoted, header in includes(path):
            if not allowed(folder, quoted, header):
                yield f"{path.relative_to(root)}:{number}: src/{folder} may not include {header}"


def check_outside(root: pathlib.Path):
    """Nothing outside src/ but its unit tests may see a header of the service."""
    for top in ("platform", "tools"):
        for path in sources(root / top):
            for number, quoted, header in includes(path):
                inside = header.split("/", 1)[0] in RULES and not (path.parent / header).exists()
                if quoted and inside:
                    yield f"{path.relative_to(root)}:{number}: {top}/ may not include {header}"


def main() -> int:
    root = pathlib.Path(__file__).resolve().parents[2]
    problems = [*check_service(root), *check_outside(root)]
    print("\n".join(problems), end="\n" if problems else "")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
