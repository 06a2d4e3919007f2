#!/usr/bin/python3
"""Validates a Redfish document against a definition of a DMTF JSON schema.

Usage: validate_schema.py SCHEMA_FILE DEFINITION < DOCUMENT
       e.g. validate_schema.py Event.v1_7_0.json Event

The folder of schema files comes from the environment variable REDFISH_SCHEMAS. Exit status: 0 valid, 1 invalid (each
fault on standard output), 2 the folder or the jsonschema package is missing.
"""

import json
import os
import pathlib
import sys

try:
    from jsonschema import Draft7Validator, RefResolver  # Draft 7: "$ref" ignores its siblings, as DMTF means it
except ImportError:
    sys.exit(2)

BASE = "http://redfish.dmtf.org/schemas/v1/"


class OfflineResolver(RefResolver):
    """A schema that is not in the folder matches nothing: those are the targets of links to other resources."""

    def resolve_from_url(self, url):
        return super().resolve_from_url(url) if url.partition("#")[0] in self.store else False


file_name, definition = sys.argv[1:3]
folder = pathlib.Path(os.environ.get("REDFISH_SCHEMAS") or "/nowhere")
schemas = {BASE + path.name: json.loads(path.read_text("utf-8")) for path in folder.glob("*.json")}
if BASE + file_name not in schemas:
    sys.exit(2)
root = {"$ref": f"{BASE}{file_name}#/definitions/{definition}"}
faults = list(Draft7Validator(root, resolver=OfflineResolver("", root, store=schemas)).iter_errors(json.load(sys.stdin)))
for fault in faults:
    print("/".join(str(part) for part in fault.absolute_path) + ": " + fault.message[:300])
sys.exit(1 if faults else 0)
