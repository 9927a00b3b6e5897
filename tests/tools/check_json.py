#!/usr/bin/env python3
"""Checks each line of standard input against a JSON schema: check_json.py SCHEMA."""

import json
import sys

import jsonschema


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        schema = json.load(file)
    jsonschema.Draft202012Validator.check_schema(schema)
    validator = jsonschema.Draft202012Validator(schema)
    lines = sys.stdin.read().splitlines()
    good = bool(lines)
    if not lines:
        print("there is no line")
    for line in lines:
        try:
            errors = [error.message for error in validator.iter_errors(json.loads(line))]
        except json.JSONDecodeError as error:
            errors = [str(error)]
        for error in errors:
            good = False
            print(f"{line}: {error}")
    return 0 if good else 1


sys.exit(main())
