#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks events and replies of jpagent run --json, one object a line, against their schema.

    check_events.py SCHEMA FILE

Says each line that is not as the schema says, and why. Exit status: 0 if all are, 1 if not, 2 if it cannot be checked.
"""
import json
import sys


def main():
    try:
        import jsonschema
    except ImportError:
        print("check_events.py needs python3-jsonschema", file=sys.stderr)
        return 2
    with open(sys.argv[1], encoding="utf-8") as file:
        schema = json.load(file)
    jsonschema.Draft202012Validator.check_schema(schema)
    # One branch for each kind of event: the reason is then about that kind, and not that no branch fits.
    branches = {
        name: jsonschema.Draft202012Validator({"$ref": f"#/$defs/{name}", "$defs": schema["$defs"]})
        for name in (branch["$ref"].rsplit("/", 1)[1] for branch in schema["oneOf"])
    }
    whole = jsonschema.Draft202012Validator(schema)
    wrong = count = 0
    with open(sys.argv[2], encoding="utf-8") as file:
        for line in file:
            count += 1
            event = json.loads(line)
            kind = event.get("event")
            errors = [error.message for error in branches[kind].iter_errors(event)] if kind in branches else ["unknown"]
            if not errors and not whole.is_valid(event):
                errors = ["it fits no branch, or several"]
            if errors:
                wrong += 1
                print(line.rstrip()[:500], *errors, sep="\n    ")
    if count == 0:
        print("there is nothing to check", file=sys.stderr)
        return 2
    return 1 if wrong else 0


sys.exit(main())
