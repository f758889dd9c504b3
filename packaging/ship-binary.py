#!/usr/bin/env python3
"""Makes the shipped form of one linked binary (cmake/Release.cmake runs it):

  ship-binary.py OBJCOPY LINKED PDB SHIP_DIR

  SHIP_DIR/debug/NAME.debug   the DWARF debug information (objcopy --only-keep-debug)
  SHIP_DIR/bin/NAME           stripped, with a .gnu_debuglink to it
  SHIP_DIR/symbols/...        a symbol store: PDB/GUIDAGE/PDB and NAME/STAMPSIZE/NAME

The linker (lld) wrote PDB and a CodeView (RSDS) debug-directory entry naming
it, with a GUID that is a hash of the PDB's content (its first 32 bits are also
the PDB's Signature). The stripped binary's TimeDateStamp is the GUID's first
32 bits, not a time: a link writes 0 (--no-insert-timestamp), which would give
every build of the same image size one store key. Both keys come from the
content, so two builds of one commit give the same store.
"""
import os
import shutil
import struct
import subprocess
import sys


def pe_info(path):
    """(TimeDateStamp, SizeOfImage, (guid bytes, age, pdb name) or None)."""
    data = open(path, "rb").read()
    (pe,) = struct.unpack_from("<I", data, 0x3C)
    if data[pe:pe + 4] != b"PE\0\0":
        sys.exit("ship-binary: %s is not a PE image" % path)
    sections, stamp = struct.unpack_from("<HI", data, pe + 6)
    (optional_size,) = struct.unpack_from("<H", data, pe + 20)
    opt = pe + 24
    if struct.unpack_from("<H", data, opt)[0] != 0x20B:
        sys.exit("ship-binary: %s is not a 64-bit image" % path)
    (image_size,) = struct.unpack_from("<I", data, opt + 56)
    debug_rva, debug_size = struct.unpack_from("<II", data, opt + 112 + 6 * 8)
    table = opt + optional_size

    def offset(rva):
        for i in range(sections):
            size, address, raw_size, raw = struct.unpack_from("<IIII", data, table + 40 * i + 8)
            if address <= rva < address + max(size, raw_size):
                return raw + rva - address
        sys.exit("ship-binary: %s: RVA 0x%x is in no section" % (path, rva))

    codeview = None
    if debug_size:
        start = offset(debug_rva)
        for entry in range(start, start + debug_size, 28):
            kind, _, _, raw = struct.unpack_from("<IIII", data, entry + 12)
            if kind == 2 and data[raw:raw + 4] == b"RSDS":
                guid = data[raw + 4:raw + 20]
                (age,) = struct.unpack_from("<I", data, raw + 20)
                name = data[raw + 24:data.index(b"\0", raw + 24)].decode()
                codeview = (guid, age, name)
    return stamp, image_size, codeview


def guid_text(guid):
    """The GUID as a symbol store writes it: its three first fields are little-endian."""
    d1, d2, d3 = struct.unpack_from("<IHH", guid)
    return "%08X%04X%04X%s" % (d1, d2, d3, guid[8:].hex().upper())


def main():
    objcopy, linked, pdb, ship = sys.argv[1:5]
    name = os.path.basename(linked)
    _, _, codeview = pe_info(linked)
    if not codeview or os.path.basename(codeview[2]) != os.path.basename(pdb):
        sys.exit("ship-binary: %s has no CodeView entry naming %s" % (linked, os.path.basename(pdb)))
    guid, age, pdb_name = codeview
    stamp_value = struct.unpack_from("<I", guid)[0]
    env = dict(os.environ, SOURCE_DATE_EPOCH=str(stamp_value))
    binary = os.path.join(ship, "bin", name)
    debug = os.path.join(ship, "debug", name + ".debug")
    for folder in (os.path.dirname(binary), os.path.dirname(debug)):
        os.makedirs(folder, exist_ok=True)
    subprocess.run([objcopy, "--only-keep-debug", linked, debug], env=env, check=True)
    subprocess.run([objcopy, "--strip-all", "--add-gnu-debuglink=" + debug, linked, binary],
                   env=env, check=True)

    stamp, image_size, shipped = pe_info(binary)
    if shipped != codeview:
        sys.exit("ship-binary: stripping %s lost or changed its CodeView entry" % name)
    store = os.path.join(ship, "symbols")
    for key_name, key, source in ((pdb_name, "%s%X" % (guid_text(guid), age), pdb),
                                  (name, "%08X%x" % (stamp, image_size), binary)):
        shutil.rmtree(os.path.join(store, key_name), ignore_errors=True)
        os.makedirs(os.path.join(store, key_name, key))
        shutil.copyfile(source, os.path.join(store, key_name, key, key_name))
    print("ship-binary: %s, %s {%s} age %d" % (name, pdb_name, guid_text(guid), age))


if __name__ == "__main__":
    main()
