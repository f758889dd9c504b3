#!/usr/bin/env python3
"""Every record logread's summary recognises (tools/logread/SummaryRecords.h) is a
row of docs/log-records.md (source, line, text), and so is every sensor library
failure text it scans for (fusion/SensorLibTexts.h)."""
import re
import sys
from pathlib import Path

root = Path(sys.argv[1] if len(sys.argv) > 1 else Path(__file__).resolve().parents[2])
doc = (root / "docs/log-records.md").read_text(encoding="utf-8")
catalogue = {(m[0], int(m[1]), m[2]) for m in re.findall(r"^\| (\S+) \| (\d+) \| [^|]*\| `(.*?)` \|", doc, re.M)}
texts = set(re.findall(r"\| `(.*?)` \|", doc))
header = (root / "tools/logread/SummaryRecords.h").read_text(encoding="utf-8")
rows = re.findall(r'Known k\w+\{\s*"([^"]+)",\s*(\d+),\s*"((?:[^"\\]|\\.)*)"\s*\}', header)
if len(rows) != header.count("inline constexpr Known k"):
    sys.exit(f"summary-records: {header.count('inline constexpr Known k')} records declared, {len(rows)} read: a row this check cannot read")
missing = [r for r in rows if (r[0], int(r[1]), r[2].replace('\\"', '"').replace("\\\\", "\\")) not in catalogue]
sensor = re.findall(r'#define QX_SENSOR_\w+ "(.*)"', (root / "fusion/SensorLibTexts.h").read_text(encoding="utf-8"))
missing += [("SensorLibLog.log", 0, t) for t in sensor if t not in texts]
for source, line, text in missing:
    print(f"summary-records: {source}({line}) \"{text}\" is not a row of docs/log-records.md")
total = len(rows) + len(sensor)
print(f"summary-records: {total - len(missing)} of {total} recognised records in the catalogue")
sys.exit(1 if missing or not rows else 0)
