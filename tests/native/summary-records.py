#!/usr/bin/env python3
"""Every record logread's summary recognises (tools/logread/SummaryRecords.h)
is a row of docs/log-records.md: same source, line and text; and so is every
sensor library failure text it scans for (fusion/SensorLibTexts.h)."""
import re
import sys
from pathlib import Path

root = Path(sys.argv[1] if len(sys.argv) > 1 else Path(__file__).resolve().parents[2])
catalogue = set()
for line in (root / "docs/log-records.md").read_text(encoding="utf-8").splitlines():
    m = re.match(r"\| (\S+) \| (\d+) \| [^|]*\| `(.*?)` \|", line)
    if m:
        catalogue.add((m.group(1), int(m.group(2)), m.group(3)))
header = (root / "tools/logread/SummaryRecords.h").read_text(encoding="utf-8")
rows = re.findall(r'Known k\w+\{\s*"([^"]+)",\s*(\d+),\s*"((?:[^"\\]|\\.)*)"\s*\}', header)
declared = header.count("inline constexpr Known k")
if len(rows) != declared:
    print(f"summary-records: {declared} records declared, {len(rows)} read: a row this check cannot read")
    sys.exit(1)
texts = set(re.findall(r"\| `(.*?)` \|", (root / "docs/log-records.md").read_text(encoding="utf-8")))
sensor = re.findall(r'#define QX_SENSOR_\w+ "(.*)"', (root / "fusion/SensorLibTexts.h").read_text(encoding="utf-8"))
rows += [("SensorLibLog.log", "0", t) for t in sensor]
missing = [r for r in rows if r[0] == "SensorLibLog.log" and r[2] not in texts or
           r[0] != "SensorLibLog.log" and (r[0], int(r[1]), r[2].replace('\\"', '"').replace("\\\\", "\\")) not in catalogue]
for source, line, text in missing:
    print(f"summary-records: {source}({line}) \"{text}\" is not a row of docs/log-records.md")
print(f"summary-records: {len(rows) - len(missing)} of {len(rows)} recognised records in the catalogue")
sys.exit(1 if missing or not rows else 0)
