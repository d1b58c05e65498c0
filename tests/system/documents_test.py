"""The documents name what there is: files, headings, variables, messages and calls."""

import re

import pytest

from kt_system import lane

DOCUMENTS = sorted(
    [
        *lane.REPO.glob("*.md"),
        *lane.REPO.glob("docs/**/*.md"),
        *lane.REPO.glob("platform/*/*.md"),
        *lane.REPO.glob("tools/*/*.md"),
        *lane.REPO.glob("tests/**/*.md"),
    ]
)
SOURCE_FOLDERS = ("src", "platform", "tools", "tests", "schema", "cmake")
SOURCE_KINDS = {".cpp", ".h", ".py", ".sh", ".txt", ".cmake", ".sql"}

LINK = re.compile(r"(?<!!)\[[^]]*\]\(([^)\s]+)\)")
HEADING = re.compile(r"^#+ +(.*)$", re.MULTILINE)
QUOTED = re.compile(r"`([^`\n]+)`")
TREE_PATH = re.compile(r"(?:\./)?(?:src|platform|tools|tests|schema|docs|cmake)(?:/[\w.{},+-]+)+/?")
VARIABLE = re.compile(r"\bKT_[A-Z][A-Z0-9_]*\b")
READ_AT_RUN_TIME = re.compile(r'(?:getenv|setting)\("(KT_[A-Z0-9_]+)"\)')
LITERALS = re.compile(r'"(?:[^"\\\n]|\\.)*"(?:\s*"(?:[^"\\\n]|\\.)*")*')
CONVERSION = re.compile(r"%[-+ 0#]*(?:\d+|\*)?(?:\.(?:\d+|\*))?(?:hh|ll|[hlzjt])?[a-zA-Z]")
COLUMNS_OF_MESSAGES = {"message", "log"}


def name_of(path) -> str:
    return str(path.relative_to(lane.REPO))


def sources(*folders: str) -> dict[str, str]:
    return {
        name_of(path): path.read_text("utf-8", "replace")
        for folder in folders
        for path in sorted((lane.REPO / folder).rglob("*"))
        if path.is_file() and path.suffix in SOURCE_KINDS
    }


def anchors_of(text: str) -> set[str]:
    """Headings as they are addressed: lower case, "-" for blanks, other punctuation dropped."""
    headings = (re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", title) for title in HEADING.findall(text))
    return {re.sub(r"[^\w\- ]", "", title).strip().lower().replace(" ", "-") for title in headings}


def broken_links(path) -> list[str]:
    broken = []
    for target in LINK.findall(path.read_text("utf-8")):
        if re.match(r"[a-z]+:", target):
            continue
        file, _, anchor = target.partition("#")
        place = (path.parent / file) if file else path
        if not place.exists():
            broken.append(target)
        elif anchor and anchor not in anchors_of(place.read_text("utf-8")):
            broken.append(target)
    return broken


@pytest.mark.parametrize("path", DOCUMENTS, ids=name_of)
def test_every_link_leads_somewhere(path):
    assert broken_links(path) == []


def test_a_link_into_nothing_is_found(tmp_path):
    document = tmp_path / "a.md"
    document.write_text("# One `two`!\n[a](#one-two) [b](a.md#one-two) [c](b.md) [d](#three)")
    assert broken_links(document) == ["b.md", "#three"]


def alternatives(text: str) -> list[str]:
    """a/{b,c} is a/b and a/c."""
    match = re.search(r"\{([^}]*)\}", text)
    if match is None:
        return [text]
    return [
        path
        for word in match[1].split(",")
        for path in alternatives(text[: match.start()] + word + text[match.end() :])
    ]


@pytest.mark.parametrize("path", DOCUMENTS, ids=name_of)
def test_every_file_that_is_named_exists(path):
    missing = [
        name
        for quoted in QUOTED.findall(path.read_text("utf-8"))
        if TREE_PATH.fullmatch(quoted)
        for name in alternatives(quoted)
        if not any((base / name).exists() for base in (lane.REPO, path.parent, lane.REPO / "tests"))
    ]
    assert missing == []


@pytest.mark.parametrize("path", DOCUMENTS, ids=name_of)
def test_every_variable_that_is_named_exists(path):
    known = {
        variable
        for text in (*sources(*SOURCE_FOLDERS).values(), (lane.REPO / "dev").read_text("utf-8"))
        for variable in VARIABLE.findall(text)
    }
    assert set(VARIABLE.findall(path.read_text("utf-8"))) <= known


def test_every_variable_of_the_service_is_documented():
    read = {
        variable
        for text in sources("src", "platform").values()
        for variable in READ_AT_RUN_TIME.findall(text)
    }
    text = (lane.REPO / "docs/environment.md").read_text("utf-8")
    documented = {variable for row in table_rows(text) for variable in VARIABLE.findall(row[0])}
    assert read == documented
    assert read


def table_rows(text: str, first_column: set[str] | None = None):
    """The cells of each row of the tables, or of those whose first column has one of the names."""
    wanted = False
    before = ""
    for line in text.splitlines():
        if line.startswith("| "):
            cells = [cell.strip() for cell in line.strip("|").split(" | ")]
            if not before.startswith("|"):
                wanted = first_column is None or cells[0] in first_column
            elif wanted and not line.startswith("| ---"):
                yield cells
        before = line


def texts_of_the_service() -> list[str]:
    """Every text of the sources, with "..." for what is put in."""
    texts = []
    for source in sources("src", "platform").values():
        for literal in LITERALS.findall(source):
            text = "".join(re.findall(r'"((?:[^"\\\n]|\\.)*)"', literal))
            text = text.replace("\\n", "").replace('\\"', '"')
            texts.append(CONVERSION.sub("...", text))
    return texts


# What others say: the ip command and the C library.
OF_OTHERS = {"No such device", "Network is down", 'Cannot find device "can7"'}


@pytest.mark.parametrize("document", ["operations.md", "troubleshooting.md"])
def test_every_message_that_is_explained_can_appear(document):
    text = (lane.REPO / "docs" / document).read_text("utf-8")
    explained = [
        message
        for row in table_rows(text, COLUMNS_OF_MESSAGES)
        for message in QUOTED.findall(row[0])
        if message not in OF_OTHERS
    ]
    assert explained
    known = texts_of_the_service()
    unknown = [message for message in explained if not any(fits(message, one) for one in known)]
    assert unknown == []


def fits(message: str, text: str) -> bool:
    """The message is a piece of the text, or the text with an example of what is put in."""
    if len(message) > 5 and message.removesuffix("...") in text:
        return True
    if "..." in message or len(text.replace("...", "")) < 5:
        return False
    return bool(re.fullmatch(".*".join(re.escape(part) for part in text.split("...")), message))


def calls_of(text: str) -> set[str]:
    """Functions named in the first column: `name(arguments)`, or names alone in a list of calls."""
    cells = (row[0] for row in table_rows(text, {"call", "calls"}))
    return {name for cell in cells for name in re.findall(r"`(\w+)(?:\([^`]*\))?`", cell)}


def test_the_calls_of_the_libraries_are_those_that_the_service_makes():
    declared = set()
    for name, text in sources("platform").items():
        if "/include/" in name and not name.endswith("dx_client.h"):
            code = re.sub(r"/\*.*?\*/", "", text, flags=re.DOTALL)
            declared |= set(re.findall(r"\b([a-z]\w*)\(", code))
    service = " ".join(sources("src").values())
    made = {name for name in declared if re.search(rf"\b{name}\b(?:\(|>)", service)}
    assert calls_of((lane.REPO / "docs/platform.md").read_text("utf-8")) == made


PROMISE = re.compile(r"`(\w+)(\.|::)(\w+)`")


def is_a_test(name: str, kind: str, test: str) -> bool:
    if kind == ".":
        wanted = re.compile(rf"TEST(_F)?\({name}, {test}\)")
        return any(wanted.search(text) for text in sources("tests/unit").values())
    files = [*lane.REPO.glob(f"tests/*/{name}.py")]
    return any(f"def {test}(" in path.read_text("utf-8") for path in files)


def test_every_promise_names_tests_that_exist():
    text = (lane.REPO / "docs/security.md").read_text("utf-8")
    rows = [line for line in text.partition("## What is promised")[2].split("\n") if "`" in line]
    promises = [row for row in rows if row.startswith("| ")]
    assert len(promises) > 15
    for row in promises:
        tests = PROMISE.findall(row.rpartition(" | ")[2])
        assert tests, row
        assert [name for name in tests if not is_a_test(*name)] == [], row
