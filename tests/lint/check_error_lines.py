#!/usr/bin/env python3
"""Checks the error chain literals in src/: every "Error: NAME() returns ..." line must name a
function declared in a header of src/ (or one of the historical names the program prints on
purpose), and every message literal that starts with a tag must use one of the known prefixes
with its exact spelling."""
import pathlib
import re
import sys

root = pathlib.Path(__file__).resolve().parents[2]
src = root / "src"

# Names that the program prints although no function carries them: the messages are kept
# word for word because users and scripts match on them.
HISTORICAL = {
    "quovix_text_segregate_rows",        # the row splitter is quovix_text_segregate_into_rows
    "quovix_atom_name_to_typeos",        # printed for quovix_atom_name_to_type
    "quovix_property_bin_read_from_file",  # printed for quovix_property_binary_read_from_file
    "quovix_property_type_count",        # printed for quovix_property_calculate_type_count
    "quovix_gin_lib_import_from_property",  # force-field export, not part of this build
    "sscanf",
    "quovix_cell_update_cartesion",
}

declared = set()
for hpp in src.glob("*.hpp"):
    text = hpp.read_text()
    declared.update(re.findall(r"\b(quovix_\w+)\s*\(", text))

problems = []
for cpp in sorted(src.glob("*.cpp")):
    for lineno, line in enumerate(cpp.read_text().splitlines(), start=1):
        for name in re.findall(r"Error: (\w+)\(\) returns", line):
            if name not in declared and name not in HISTORICAL:
                problems.append(f"{cpp.name}:{lineno}: '{name}()' is not declared in src/*.hpp")
        for bad in re.findall(r"\"(error|ERROR|Warnig|Messsage|warning|message):", line):
            problems.append(f"{cpp.name}:{lineno}: malformed prefix '{bad}:'")

for p in problems:
    print(p)
print(f"{len(problems)} problem(s)")
sys.exit(1 if problems else 0)
