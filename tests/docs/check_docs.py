#!/usr/bin/env python3
"""Holds README.md and docs/*.md to the programs and the sources.

    check_docs.py BUILD-FOLDER            check everything
    check_docs.py BUILD-FOLDER --update   run the examples and write their output into the pages
    check_docs.py BUILD-FOLDER --only docs/rx7040.md

- Examples: blocks of the kind "console" are what is typed into a shell, and what comes of it. A line that begins with "$ " is a
  command; what follows is its output. They are run in an empty folder, where "build" is the build
  folder. What differs from run to run is not compared: time stamps, rates, dates of the build, and
  a line "..." stands for any lines.
- Front ends: the expressions of docs/front-ends.md fit every line of these outputs.
- All other commands in code blocks need hardware; their options and models must exist.
- Failure lines: each ERROR line of a family's sources must stand in its page; each family has a page,
  and the README leads to it.
- Links: each relative link leads to a file, and to a heading of it.
"""
import argparse
import concurrent.futures
import getopt
import itertools
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGES = [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]

# Which sources print the failure lines of which page.
PAGE_SOURCES = {
    "ag3335": ["ag3335/*", "core/options"],
    "ag3352": ["upgrade/ag3352*", "upgrade/framed_upgrade", "upgrade/kv_upgrade_protocol",
               "ag3335/new_agent*", "ag3335/package", "ag3335/access", "ag3335/readback_request",
               "core/options"],
    "hd8xx0": ["families/cyfm", "families/fwup*", "families/hd8xx0", "teseo/nmea_upgrade",
               "teseo/transfer"],
    "evaluation-board": ["families/gnss_module_evb"],
    "monitor": ["families/monitor*"],
    "rx7040": ["families/rx7040*", "families/command_frames"],
    "sta8100": ["teseo/sta8100", "teseo/entry", "teseo/boot_loader", "teseo/app_boot",
                "teseo/loader_steps", "teseo/transfer"],
    "sta9100": ["teseo/sta9100", "teseo/loader_steps", "teseo/transfer"],
    "sta8089": ["teseo/sta8089", "teseo/entry", "teseo/boot_loader", "teseo/loader_steps",
                "teseo/transfer"],
    "zpx710p": ["upgrade/zpx710p*", "upgrade/framed_upgrade", "upgrade/kv_upgrade_protocol"],
    "rta500c": ["teseo/rta500c", "teseo/entry", "teseo/nmea_upgrade", "teseo/transfer"],
}

# Lines of shared steps that a family does not print: AG3352 tells its steps by the driver alone, and
# HD8xx0 sends from memory.
NOT_PRINTED = {
    "ag3352": r"^%s serial_|^Sync New Da|^%s$",
    "hd8xx0": r"^Firmware %s|^file path|^The file|^%s$",
}

problems = []


def complain(page, line, text):
    problems.append(f"{page.relative_to(ROOT)}:{line}: {text}")


# --- blocks of a page ----------------------------------------------------------------------------


class Block:
    """A code block: its kind (the word behind the fence, or "indented") and its lines."""

    def __init__(self, kind, first_line):
        self.kind = kind
        self.first_line = first_line  # number of its first line of content, from 1
        self.lines = []


def blocks_of(page):
    blocks = []
    fenced = None
    previous_blank = True
    for number, line in enumerate(page.read_text().splitlines(), 1):
        if fenced is not None:
            if line.startswith("```"):
                fenced = None
            else:
                fenced.lines.append(line)
        elif line.startswith("```"):
            fenced = Block(line[3:].strip(), number + 1)
            blocks.append(fenced)
        elif line.startswith("    ") and (previous_blank or blocks and blocks[-1].kind == "indented"
                                          and blocks[-1].first_line + len(blocks[-1].lines)
                                          == number):
            if previous_blank:
                blocks.append(Block("indented", number))
            blocks[-1].lines.append(line[4:])
        previous_blank = line.strip() == ""
    return blocks


# --- examples that are run -----------------------------------------------------------------------


class Command:
    def __init__(self, text):
        self.text = text
        self.output = []


def commands_of(block):
    commands = []
    for line in block.lines:
        if commands and commands[-1].text.endswith("\\"):
            commands[-1].text += "\n" + line
        elif line.startswith("$ "):
            commands.append(Command(line[2:]))
        elif commands:
            commands[-1].output.append(line)
    return commands


def run_commands(commands, build):
    """Runs the commands in one shell. Returns the output of each, as lines."""
    mark = "@@@@"
    with tempfile.TemporaryDirectory(prefix="orbix") as folder:
        os.symlink(build, os.path.join(folder, "build"))
        # The tool counts 15 to 20 characters of a port's name.
        link = tempfile.mktemp(prefix="m", dir="/tmp")
        script = []
        for command in commands:
            text = command.text.replace("/tmp/module", link)
            script += [f"echo {mark}", text]
            if text.rstrip().endswith("&"):
                script.append(f"for _ in {{1..200}}; do [ -e {link} ] && break; sleep 0.02; done; "
                              "sleep 0.1")
        script += ["jobs -p | xargs -r kill 2>/dev/null", "wait"]
        run = subprocess.run(["bash", "-c", "\n".join(script)], cwd=folder, text=True,
                             stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                             stderr=subprocess.STDOUT, timeout=120, check=False,
                             env={**os.environ, "PATH": f"{build}:{os.environ['PATH']}"})
    output = run.stdout.replace("\r", "").replace(link, "/tmp/module")
    parts = output.split(mark + "\n")[1:]
    return [part.splitlines() for part in parts]


def masked(line):
    line = re.sub(r"\[\d{3,}\.\d{3}\]", "[SSS.mmm]", line)
    line = re.sub(r"\d+(\.\d+)? KBps", "N KBps", line)
    line = re.sub(r"(V\d+\.\d+\.\d+) [A-Z][a-z]{2} [ \d]\d \d{4} [\d:]{8}", r"\1 DATE", line)
    return line.rstrip()


def lines_match(shown, printed):
    """Whether the lines are equal; a shown "..." stands for any number of lines."""
    shown = [masked(line) for line in shown]
    printed = [masked(line) for line in printed]
    reachable = {0}  # how many of the printed lines the shown ones so far may stand for
    for line in shown:
        if line == "...":
            reachable = set(range(min(reachable), len(printed) + 1)) if reachable else set()
        else:
            reachable = {at + 1 for at in reachable if at < len(printed) and printed[at] == line}
    return len(printed) in reachable


def shortened(lines):
    """The output as a page shows it: long runs of like lines are cut."""
    result = []
    for is_run, group in itertools.groupby(lines, lambda line: "[PROGRESS]" in line
                                           or "[SPEED]" in line or "ACK time out 500" in line):
        group = list(group)
        if is_run and len(group) > 6:
            group = group[:3] + ["..."] + group[-2:]
        result += group
    return result


def expressions():
    """The named regular expressions of the page for front ends."""
    for block in blocks_of(ROOT / "docs" / "front-ends.md"):
        if block.kind == "regex":
            return dict(line.split(None, 1) for line in block.lines)
    return {}


def check_form(page, block, command, output, expression):
    """The lines of a run of the tool are of the form that front ends are told."""
    if not re.match(r"(\S*/)?orbix_flash\b", command.text) or "orbix_flash -S" in command.text:
        return
    tag = None
    for line in output:
        if not line.startswith("[") or re.match(r"\[\d+\.\d+\]", line) is None:
            continue  # bare, or of standard error, or of what the shell does with the output
        found = list(re.finditer(expression["message"], line))
        if "".join(message.group(0) for message in found) != line:
            complain(page, block.first_line, f"of another form than docs/front-ends.md says: {line}")
        for message in found:
            tag, text = message.group(3), message.group(4)
            if tag is None and re.match(r"\[[A-Z]+\]", text):
                complain(page, block.first_line, f"a tag that docs/front-ends.md does not tell: {line}")
            if tag in expression and re.fullmatch(expression[tag], text) is None:
                complain(page, block.first_line, f"of another form than a {tag} line: {line}")
    if tag not in ("SUCCESS", "FAIL"):
        complain(page, block.first_line, f"no result line: {command.text}")


def check_example(page, block, build, update):
    """Returns the lines that the block should have, or None when it is right."""
    commands = commands_of(block)
    outputs = run_commands(commands, build)
    for command, output in zip(commands, outputs):
        check_form(page, block, command, output, expressions())
    if len(outputs) != len(commands):
        complain(page, block.first_line, "the shell did not come to the end of the commands")
        return None
    wanted = []
    right = True
    for command, output in zip(commands, outputs):
        wanted += ("$ " + command.text).split("\n")
        if lines_match(command.output, output):
            wanted += command.output
            continue
        right = False
        wanted += shortened(output)
        if not update:
            complain(page, block.first_line, f"the output of `{command.text}` is not the one shown, "
                     "but:\n    " + "\n    ".join(shortened(output)))
    return None if right else wanted


def check_examples(pages, build, update):
    work = [(page, block) for page in pages for block in blocks_of(page) if block.kind == "console"]
    # The examples wait more than they compute.
    with concurrent.futures.ThreadPoolExecutor(max_workers=6) as pool:
        results = list(pool.map(lambda item: check_example(*item, build, update), work))
    if not update:
        return len(work)
    for page in pages:
        lines = page.read_text().splitlines()
        for (other, block), wanted in reversed(list(zip(work, results))):
            if other == page and wanted is not None:
                begin = block.first_line - 1
                lines[begin:begin + len(block.lines)] = wanted
        page.write_text("\n".join(lines) + "\n")
    return len(work)


# --- commands that need hardware -----------------------------------------------------------------


def output_of(*command):
    return subprocess.run(command, text=True, capture_output=True, check=True).stdout


def check_commands(pages, build):
    models = set(output_of(f"{build}/orbix_flash", "-S").split())
    sim_options = set(re.findall(r"--[a-z]+", output_of(f"{build}/orbix_sim", "--help")))
    count = 0
    for page in pages:
        for block in blocks_of(page):
            text = "\n".join(block.lines).replace("\\\n", " ")
            for line in text.split("\n"):
                line = line.strip().removeprefix("$ ")
                if not re.match(r"(\S*/)?orbix_(flash|sim)\b", line):
                    continue
                count += 1
                words = shlex.split(line.rstrip("& "), comments=True)
                words = list(itertools.takewhile(lambda word: not re.match(r"\d?[<>|]", word), words))
                if words[0].endswith("orbix_sim"):
                    used = {word for word in words if word.startswith("--")}
                    if not used <= sim_options:
                        complain(page, block.first_line, f"unknown option in: {line}")
                    if not used & {"--list", "--help"} and words[1] not in models:
                        complain(page, block.first_line, f"unknown model in: {line}")
                    continue
                try:
                    options, _ = getopt.gnu_getopt(words[1:], "a:m:p:d:b:f:s:r:t:vl:L:c:g:DR:T:o:S")
                except getopt.GetoptError as error:
                    complain(page, block.first_line, f"{error} in: {line}")
                    continue
                for letter, value in options:
                    if letter == "-m" and value not in models:
                        complain(page, block.first_line, f"unknown model {value} in: {line}")
    return count


# --- failure lines -------------------------------------------------------------------------------

STRING = r'"(?:[^"\\]|\\.)*"'
STRINGS = rf"{STRING}(?:\s*{STRING})*"


def failure_lines(source):
    """The texts of the ERROR lines, and of the untagged lines that tell of a failure."""
    code = re.sub(r"//.*", "", source.read_text())
    texts = []
    for match in re.finditer(STRINGS, code):
        before = code[:match.start()].rstrip()
        text = "".join(part[1:-1] for part in re.findall(STRING, match.group()))
        text = text.replace("\\n", "").replace('\\"', '"').replace("\\\\", "\\")
        is_error = before.endswith("log_error(")
        tells = re.search(r"fail|error|wrong|MAX\.20|\[WARN\]|expected|unknow", text, re.I)
        is_info = before.endswith("log_info(") or before.endswith("#include")
        if (is_error or tells and not is_info) and " " in text.strip() or is_error:
            if not before.endswith("perror(") and not before.endswith("hints::give("):
                texts.append(text.replace("\\r", "").strip())
    return texts


def spans_of(page):
    """The code spans in the tables of a page."""
    return [span for line in page.read_text().splitlines() if line.startswith("|")
            for span in re.findall(r"`([^`]+)`", line)]


def is_shown(text, span):
    """Whether a span stands for the line: words that differ from run to run are left open."""
    conversion = r"%[-0-9.]*[a-zA-Z]"
    open_text = r"\.\.\.|\.\.|\b[A-Z]{4}\b|\bN\b|\b[xX]{2}\b|\bag33\d\d_\w+|" \
                r"(?<=\[)(?:fw_update|uzip|judge)_\w+|0x[0-9A-Fa-f]+|\d+"
    # The line as a text, with a sign for whatever a conversion, or a number, puts there.
    line = re.sub(conversion + r"|0x[0-9A-Fa-f]+|\d+", "\0", text)
    pattern = ".*".join(re.escape(re.sub(r"\s+", " ", part)) for part in re.split(open_text, span))
    fixed = re.sub(open_text, "", span)
    return len(re.sub(r"\W", "", fixed)) >= 3 and re.search(pattern, line) is not None


def check_failure_lines(pages):
    count = 0
    for page in pages:
        sources = PAGE_SOURCES.get(page.stem, [])
        spans = spans_of(page)
        for name in sources:
            files = sorted((ROOT / "src").glob(name + ".cpp"))
            if not files:
                complain(page, 1, f"there are no sources {name}")
            for source in files:
                for text in failure_lines(source):
                    if text == "%s" or re.search(NOT_PRINTED.get(page.stem, "^$"), text):
                        continue
                    count += 1
                    if not any(is_shown(text, span) for span in spans):
                        complain(page, 1, f'"{text}" of {source.relative_to(ROOT)} is not explained')
    return count


def check_families():
    """Each row of the table of models has its page, and no source of a family is left out."""
    table = (ROOT / "src/core/support_table.cpp").read_text()
    readme = (ROOT / "README.md").read_text()
    for name in sorted(set(re.findall(r'"([a-z0-9-]+)",\s*"-b ', table))):
        if not (ROOT / "docs" / f"{name}.md").exists() or f"(docs/{name}.md)" not in readme:
            complain(ROOT / "README.md", 1, f"the family's page {name} is missing, or not linked")
        if name not in PAGE_SOURCES:
            complain(ROOT / "README.md", 1, f"PAGE_SOURCES does not tell the sources of {name}")
    explained = {source for names in PAGE_SOURCES.values() for name in names
                 for source in (ROOT / "src").glob(name + ".cpp")}
    for folder in ("ag3335", "upgrade", "teseo", "families"):
        for source in sorted((ROOT / "src" / folder).glob("*.cpp")):
            if source not in explained and failure_lines(source):
                complain(source, 1, "no page explains the failure lines of this source")


# --- links ---------------------------------------------------------------------------------------


def anchors_of(page):
    titles = re.findall(r"^#+ (.*)$", page.read_text(), re.M)
    return {re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-") for title in titles}


def check_links(pages):
    count = 0
    for page in pages:
        code = {block.first_line + index for block in blocks_of(page)
                for index in range(len(block.lines))}
        for number, line in enumerate(page.read_text().splitlines(), 1):
            if number in code:
                continue
            for target in re.findall(r"\]\(([^)\s]+)\)", re.sub(r"`[^`]*`", "", line)):
                if re.match(r"[a-z]+:", target):
                    continue
                count += 1
                name, _, anchor = target.partition("#")
                file = (page.parent / name).resolve() if name else page
                if not file.exists():
                    complain(page, number, f"dead link {target}")
                elif anchor and anchor not in anchors_of(file):
                    complain(page, number, f"no heading for {target}")
    return count


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--update", action="store_true")
    parser.add_argument("--only", type=pathlib.Path)
    arguments = parser.parse_args()
    build = arguments.build.resolve()
    pages = [arguments.only.resolve()] if arguments.only else PAGES
    links = check_links(pages)
    commands = check_commands(pages, build)
    lines = check_failure_lines(pages)
    check_families()
    examples = check_examples(pages, build, arguments.update)
    for problem in problems:
        print(problem)
    print(f"{links} links, {commands} commands, {lines} failure lines, {examples} examples: "
          f"{len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
