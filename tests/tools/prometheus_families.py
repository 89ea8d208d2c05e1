#!/usr/bin/python3
"""Parses a Prometheus text exposition with the reference parser and prints
its families as JSON: {name: {"type": ..., "samples": [[name, labels, value]]}}.
Fails (exit 1, the parser's message on stderr) on text the parser refuses."""
import json
import sys

from prometheus_client.parser import text_string_to_metric_families

families = {}
for family in text_string_to_metric_families(sys.stdin.read()):
    families[family.name] = {
        "type": family.type,
        "samples": [[s.name, s.labels, s.value] for s in family.samples],
    }
print(json.dumps(families))
