#!/usr/bin/env python3
"""Fails unless the SBOM keeps SPDX 2.3 and lists the files beside it: check_sbom.py SBOM VERSION"""

import hashlib
import json
import re
import sys
from pathlib import Path

# Every field that scripts/sbom.py writes, and no other; "!" where SPDX wants it.
FORMS = {"SPDXID!": r"SPDXRef-[A-Za-z0-9.-]+", "name!": ".+", "downloadLocation!": "NOASSERTION",
         "filesAnalyzed": "False", "licenseConcluded": "NOASSERTION", "licenseDeclared": "NONE",
         "versionInfo": ".+", "copyrightText": ".+", "checksums": r"\[.*[0-9a-f]{64}.*\]"}
TOP = {"SPDXID!": "SPDXRef-DOCUMENT", "spdxVersion!": r"SPDX-2\.3", "dataLicense!": r"CC0-1\.0",
       "name!": ".+", "documentNamespace!": r"[a-z]+:[^#\s]+", "packages": ".+",
       "creationInfo!": r"{'created': '[0-9-]{10}T(\d\d:){2}\d\dZ', 'creators': \['Tool: .+']}",
       "relationships": ".+"}


def check(what: dict, forms: dict[str, str]) -> None:
    for key, form in forms.items():
        value = what.get(key.strip("!"), None if "!" in key else ...)
        assert value is ... or re.fullmatch(form, str(value)), f"{key}: {value}"
    assert not set(what) - {key.strip("!") for key in forms}, f"unknown fields: {what}"


path, version = Path(sys.argv[1]), sys.argv[2]
document = json.loads(path.read_text())
check(document, TOP)
for package in document["packages"]:
    check(package, FORMS)
ids = [part["SPDXID"] for part in (document, *document["packages"])]
relations = document["relationships"]
ends = [r[end] for r in relations for end in ("spdxElementId", "relatedSpdxElement")]
kinds = {r["relationshipType"] for r in relations}
assert len(ids) == len(set(ids)) and set(ids) == set(ends), "identifiers twice, or loose ends"
assert kinds == {"DESCRIBES", "DYNAMIC_LINK", "STATIC_LINK", "GENERATES"}, f"relations: {kinds}"
listed = [(p["name"], p["versionInfo"], *p["checksums"][0].values())
          for p in document["packages"] if "checksums" in p]
files = [(f.name, version, "SHA256", hashlib.sha256(f.read_bytes()).hexdigest())
         for f in path.parent.iterdir() if f != path]
assert sorted(listed) == sorted(files), f"other files or version: {set(listed) ^ set(files)}"
