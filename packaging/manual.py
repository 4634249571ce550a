#!/usr/bin/python3
"""Makes manual pages and bash completion from what the programs themselves say with --help.

  packaging/manual.py PROGRAM... --output FOLDER

writes FOLDER/man1/COMMAND.1 for each program and each of its subcommands, and
FOLDER/completions/PROGRAM for each program.
"""

import argparse
import dataclasses
import os
import pathlib
import re
import subprocess
import time

TEXT_COLUMN = 30  # of an option's description in --help


@dataclasses.dataclass
class Command:
    """What --help says of one (sub)command."""
    words: list  # the program's name, then subcommands
    summary: str = ""
    usage: str = ""
    sections: list = dataclasses.field(default_factory=list)  # (title, [(left column, text)])
    footer: str = ""
    subcommands: list = dataclasses.field(default_factory=list)

    @property
    def page(self):
        return "-".join(self.words)

    def items(self, *titles):
        return [item for title, items in self.sections if title in titles for item in items]

    def options(self):
        return [item for _, items in self.sections for item in items if item[0].startswith("-")]


def help_of(program, words):
    environment = {name: value for name, value in os.environ.items() if name != "KORVEL_STATE_DIR"}
    return subprocess.run([program, *words, "--help"], capture_output=True, text=True, check=True,
                          env=environment).stdout


def item_of(line, following):
    """An item's left column and text; the text stands on a line of its own where the former is long."""
    if following.startswith(" " * TEXT_COLUMN):
        return line.strip(), following.strip()
    return line[:TEXT_COLUMN].strip(), line[TEXT_COLUMN:].strip()


def parsed(words, text):
    command = Command(words)
    lines = text.rstrip().split("\n")
    command.summary = lines[0].strip()
    items = None
    for at, line in enumerate(lines[1:], 1):
        if line.startswith("Usage: "):
            command.usage = line.removeprefix("Usage: ")
        elif re.fullmatch(r"[A-Z][^:]*:", line) and lines[at + 1:at + 2] != [""]:
            items = []
            command.sections.append((line.rstrip(":"), items))
        elif items is not None and re.match(r"  \S", line) and not command.footer:
            items.append(item_of(line, "".join(lines[at + 1:at + 2])))
        elif line.strip() and not line.startswith(" " * TEXT_COLUMN):
            command.footer += line.strip() + "\n"
    return command


def read(program, words=()):
    """The command and all below it."""
    name = pathlib.Path(program).name
    command = parsed([name, *words], help_of(program, words))
    for subcommand, _ in command.items("Subcommands"):
        command.subcommands.append(read(program, (*words, subcommand)))
    return command


def all_of(command):
    yield command
    for below in command.subcommands:
        yield from all_of(below)


def roff(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return re.sub(r"^([.'])", r"\\&\1", text, flags=re.M)


def manual_page(command, version, date):
    lines = [f'.TH "{command.page.upper()}" 1 "{date}" "Korvel {version}" "User Commands"',
             ".SH NAME", roff(f"{command.page} - {command.summary[0].lower()}{command.summary[1:]}"),
             ".SH SYNOPSIS", ".B " + roff(command.usage)]
    for title, items in command.sections:
        title = {"Subcommands": "COMMANDS", "Positionals": "ARGUMENTS"}.get(title, title.upper())
        lines.append(".SH " + title)
        for left, text in items:
            lines += [".TP", ".B " + roff(left), roff(text)]
    if command.footer:
        lines += [".SH NOTES", roff(command.footer.strip())]
    lines += [".SH EXIT STATUS", "0: done. 1: failed, with one line on standard error. 2: wrongly called."]
    if any(left.startswith("--state-dir") for left, _ in command.options()):
        lines += [".SH ENVIRONMENT", ".TP", ".B KORVEL_STATE_DIR",
                  "The state directory, unless the option gives one; else it is /run/korvel."]
    related = [below.page for below in command.subcommands]
    if len(command.words) > 1:
        related.append("-".join(command.words[:-1]))
    elif command.page != "korvel":
        related.append("korvel")
    if related:
        lines += [".SH SEE ALSO", roff(", ".join(f"{page}(1)" for page in related))]
    lines.append("The pages of /usr/share/doc/korvel." if not related else
                 "and the pages of /usr/share/doc/korvel.")
    return "\n".join(lines) + "\n"


def plain(left):
    """Without the names of other options."""
    return re.split(r" (?:Needs|Excludes): ", left)[0]


def names_of(left):
    return re.findall(r"(?<![\w=\[])--?[a-zA-Z][\w-]*", plain(left))


def kind_of_value(left):
    """f: a file, d: a folder, -: anything else; nothing without a value."""
    name, _, value = plain(left).partition(" ")
    if not value:
        return None
    if "DIR" in value or name.endswith("-dir"):
        return "d"
    return "f" if "FILE" in value else "-"


def completion(command):
    """A table of each command's words, and one function that reads it."""
    name = command.words[0]
    function = "_" + name.replace("-", "_")
    words, values = [], []
    for one in all_of(command):
        path = " ".join(one.words)
        offered = [below.words[-1] for below in one.subcommands]
        for left, _ in one.options():
            names = names_of(left)
            offered += names
            kind = kind_of_value(left)
            if kind:
                values += [f'    ["{path} {word}"]={kind}' for word in names]
        words.append(f'    ["{path}"]="{" ".join(offered)}"')
    new_line = "\n"
    return f"""# bash completion for {name}, made from its --help.
{function}()
{{
  local -A words=(
{new_line.join(words)}
  )
  local -A values=(
{new_line.join(values)}
  )
  local at="{name}" word i current=${{COMP_WORDS[COMP_CWORD]}} before=${{COMP_WORDS[COMP_CWORD-1]}}
  for ((i = 1; i < COMP_CWORD; ++i)); do
    word=${{COMP_WORDS[i]}}
    [[ $word != -* && -n ${{words["$at $word"]+there}} ]] && at+=" $word"
  done
  local kind=${{values["$at $before"]-}}
  case $kind in
    f | d) mapfile -t COMPREPLY < <(compgen -"$kind" -- "$current"); return ;;
    -) return ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "${{words[$at]}}" -- "$current")
}}
complete -o default -F {function} {name}
"""


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("programs", nargs="+")
    parser.add_argument("--output", type=pathlib.Path, required=True)
    parser.add_argument("--version", required=True)
    options = parser.parse_args()
    date = time.strftime("%Y-%m-%d", time.gmtime(int(os.environ.get("SOURCE_DATE_EPOCH", 0))))
    if "SOURCE_DATE_EPOCH" not in os.environ:
        date = ""
    pages, completions = options.output / "man1", options.output / "completions"
    for folder in (pages, completions):
        folder.mkdir(parents=True, exist_ok=True)
    for program in options.programs:
        command = read(program)
        for one in all_of(command):
            (pages / f"{one.page}.1").write_text(manual_page(one, options.version, date))
        (completions / command.words[0]).write_text(completion(command))


if __name__ == "__main__":
    main()
