#!/usr/bin/env python3
"""What a release consists of, as SPDX 2.3 JSON: sbom.py VERSION FILE... > camera-agent.spdx.json

The agent depends on the C library and on nothing else at run time; a static one contains it. The time
is that of SOURCE_DATE_EPOCH, so that the same release gives the same document.
"""

import hashlib
import json
import os
import sys
from datetime import datetime, timezone
from pathlib import Path


def package(identifier: str, name: str, **more) -> dict:
    return {"SPDXID": f"SPDXRef-{identifier}", "name": name, "downloadLocation": "NOASSERTION",
            "filesAnalyzed": False, "licenseConcluded": "NOASSERTION", **more}


def main() -> None:
    version, *files = sys.argv[1:]
    artefacts = [(Path(file).name, hashlib.sha256(Path(file).read_bytes()).hexdigest())
                 for file in sorted(files)]
    whole = hashlib.sha256("".join(sha for _, sha in artefacts).encode()).hexdigest()
    created = datetime.fromtimestamp(int(os.environ.get("SOURCE_DATE_EPOCH", 0)), timezone.utc)
    ours = {"versionInfo": version, "licenseDeclared": "NONE",
            "copyrightText": "Copyright 2026 the owner. All rights reserved."}
    packages = [package("agent", "camera-agent", **ours),
                package("libc", "C library (glibc; musl in the static builds)"),
                package("runtime", "libstdc++ and libgcc (libc++ headers in the static builds)")]
    relations = [("DOCUMENT", "DESCRIBES", "agent"), ("agent", "DYNAMIC_LINK", "libc"),
                 ("agent", "STATIC_LINK", "runtime")]
    for number, (name, sha) in enumerate(artefacts, 1):
        packages.append(package(f"artefact-{number}", name, **ours,
                                checksums=[{"algorithm": "SHA256", "checksumValue": sha}]))
        relations.append(("agent", "GENERATES", f"artefact-{number}"))
    json.dump({
        "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"camera-agent-{version}",
        "documentNamespace": f"urn:sha256:{whole}",
        "creationInfo": {"created": created.strftime("%Y-%m-%dT%H:%M:%SZ"),
                         "creators": ["Tool: scripts/sbom.py"]},
        "packages": packages,
        "relationships": [{"spdxElementId": f"SPDXRef-{a}", "relationshipType": kind,
                           "relatedSpdxElement": f"SPDXRef-{b}"} for a, kind, b in relations],
    }, sys.stdout, indent=2)
    print()


if __name__ == "__main__":
    main()
