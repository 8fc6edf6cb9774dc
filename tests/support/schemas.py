"""Compares what programs emit with the JSON schemas that are installed for programs of others."""

import json

import jsonschema


def _closed(schema):
    """The schema, without the fields that it does not list: so a new one must be added to it."""
    if isinstance(schema, list):
        return [_closed(one) for one in schema]
    if not isinstance(schema, dict):
        return schema
    more = {"additionalProperties": False} if "properties" in schema else {}
    return {**{key: _closed(value) for key, value in schema.items()}, **more}


class Schemas:
    def __init__(self, path):
        self.document = json.loads(path.read_text("utf-8"))
        self.closed = {key: _closed(self.document[key]) for key in ("components", "$defs") if key in self.document}

    def check(self, reference, value):
        """Raises an error that tells what in the value does not fit."""
        schema = {"$ref": reference, **self.closed} if isinstance(reference, str) else {**reference, **self.closed}
        jsonschema.Draft202012Validator.check_schema(schema)
        errors = [f"{error.json_path}: {error.message}" for error in
                  jsonschema.Draft202012Validator(schema).iter_errors(value)]
        assert not errors, (reference, errors, value)
