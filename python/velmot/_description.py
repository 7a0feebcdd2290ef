"""A description file as the command line uses it: the library's reader reads
it, and the checks here hold what it says to the CSV file it describes.

The reader's integers wrap modulo 2**32 ("class-column 4294967299" reads as
3) and it takes any column number, so the command line also reads the
numbers as written, line by line: a number the reader would not read as
written, a column beyond the CSV file's columns, or a num-features other
than their count is refused with the line that says it.

Every problem is a ValueError naming the file and, where there is one, the
line.
"""

import codecs
import os
import re
from dataclasses import dataclass, field

INT_MAX = 2**31 - 1
# Arguments the reader takes, by command.
_ARGUMENT_COUNTS = {
    "label-type": 1,
    "class-column": 1,
    "num-features": 1,
    "feature-name": 2,
    "feature": 3,
    "ignore": 1,
    "number-labels": 0,
    "label": 2,
}
# Positions of the integer arguments, by command.
_INTEGER_ARGUMENTS = {
    "class-column": (0,),
    "num-features": (0,),
    "feature-name": (0,),
    "feature": (0, 1),
    "ignore": (0,),
    "label": (0,),
}
# Commands whose first argument is a CSV column number.
_COLUMN_COMMANDS = ("class-column", "ignore", "feature-name")
# The reader's white space: C's isspace, narrower than Python's str.split().
_SPACE = re.compile(r"[ \t\n\v\f\r]+")


@dataclass
class Layout:
    """Where the class and the features stand in a CSV file's columns."""

    class_column: int | None = None
    ignored: set = field(default_factory=set)
    feature_names: dict = field(default_factory=dict)  # CSV column -> name
    class_names: dict = field(default_factory=dict)  # code -> name
    path: str | None = None
    commands: list = field(default_factory=list)  # (line number, keyword, arguments)
    # "regression" or "classification" as label-type gives it, else None.
    task: str | None = None

    def feature_columns(self, n_columns, class_column):
        return [c for c in range(n_columns) if c != class_column and c not in self.ignored]

    def check_columns(self, n_columns, data_path):
        """Refuses a column beyond the CSV file's last and a num-features
        that differs from its column count."""
        for number, keyword, words in self.commands:
            if keyword in _COLUMN_COMMANDS and int(words[0]) >= n_columns:
                raise ValueError(
                    f"{self.path} line {number}: {keyword} {words[0]} is beyond the last column "
                    f"of {data_path}, which has {n_columns} (numbered from 0)"
                )
            if keyword == "num-features" and int(words[0]) != n_columns:
                raise ValueError(
                    f"{self.path} line {number}: num-features {words[0]}, but {data_path} has {n_columns} columns"
                )


def read_layout(path):
    """The layout a description file gives, or the default layout."""
    if path is None:
        return Layout()
    if not os.path.isfile(path):
        raise ValueError(f"description file not found: {path}")
    text = _read_text(path)
    commands = _commands(text, path)
    _check_meaning(commands, path)
    import PyVelmot_description

    try:
        description = PyVelmot_description.parse_description(text)
    except RuntimeError as error:
        # The reader's own text, with its line number.
        raise ValueError(f"{path}: {str(error).strip()}") from None
    class_column = description["class_column"]
    return Layout(
        class_column=None if class_column < 0 else class_column,
        ignored=set(description["ignored_columns"]),
        feature_names=dict(description["feature_names"]),
        class_names=dict(description["labels"]),
        path=path,
        commands=commands,
        task=next(
            (
                ("regression" if words[0] == "regression" else "classification")
                for _, keyword, words in commands
                if keyword == "label-type"
            ),
            None,
        ),
    )


def _read_text(path):
    """The file as text, without a leading byte-order mark (which would
    otherwise be part of the first keyword)."""
    with open(path, "rb") as file:
        data = file.read()
    if data.startswith(codecs.BOM_UTF8):
        data = data[len(codecs.BOM_UTF8) :]
    for number, line in enumerate(data.split(b"\n"), 1):
        if b"\0" in line:  # the reader would stop at it without a word
            raise ValueError(f"{path} line {number}: holds a NUL character")
        try:
            line.decode("utf-8")
        except UnicodeDecodeError as error:
            raise ValueError(
                f"{path} line {number}: not UTF-8 text (byte {line[error.start]:#04x}); save the file as UTF-8"
            ) from None
    return data.decode("utf-8")


def _commands(text, path):
    """(line number, keyword, arguments) of each line the reader obeys,
    with every integer as written within the reader's range. Lines the
    reader refuses are left to its own message."""
    commands = []
    for number, line in enumerate(text.split("\n"), 1):
        words = _SPACE.split(line.strip(" \t\n\v\f\r"))
        if "#" in line or words[0] not in _ARGUMENT_COUNTS or len(words) - 1 != _ARGUMENT_COUNTS[words[0]]:
            continue
        for word in (words[1 + k] for k in _INTEGER_ARGUMENTS.get(words[0], ())):
            if word.isascii() and word.isdigit() and int(word) > INT_MAX:
                raise ValueError(
                    f"{path} line {number}: {word} is larger than {INT_MAX}, the largest number "
                    "a description file can hold"
                )
        commands.append((number, words[0], words[1:]))
    return commands


def _check_meaning(commands, path):
    """Refuses what the command line cannot honour: a class
    code or column given two names (the reader keeps the last name and loses
    the first without a word). A class name given two codes is refused here
    too, so that the message has its line."""
    given = {}
    for number, keyword, words in commands:
        if keyword in ("label", "feature-name"):
            what = "class code" if keyword == "label" else "column"
            name = given.setdefault((keyword, int(words[0])), words[1])
            if name != words[1]:
                raise ValueError(f"{path} line {number}: {what} {words[0]} is already named {name!r}")
        if keyword == "label":
            code = given.setdefault(("class", words[1]), words[0])
            if int(code) != int(words[0]):
                raise ValueError(f"{path} line {number}: class {words[1]!r} already has code {code}")
