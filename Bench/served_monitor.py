"""Watches what a mirror serves, as clients would see it, every 20 ms while a command runs.

Each round reads every served catalog (it must parse, and every URL in it must name this mirror)
and checks that every file it names exists as a regular file, with the catalog's size where the
catalog gives one; a file of a product served on demand (named in the mirror's on-demand index)
may be missing, since the mirror fetches it when a client asks, but never there in part. A catalog replaced while a round looked at it is looked at again next round:
a client holding the old one is not what is measured. Prints every distinct fault with the time
it was first seen and exits 1 when there was one.

Usage: served_monitor.py HTML_FOLDER PORT -- COMMAND...   (watches while COMMAND runs, then once)
"""
import os
import plistlib
import subprocess
import sys
import time

html, port = sys.argv[1], int(sys.argv[2])
command = sys.argv[sys.argv.index("--") + 1:]
others = os.path.join(html, "content/catalogs/others")
prefix = f"http://127.0.0.1:{port}/"
on_demand_index = os.path.join(html, "..", ".ondemand", "index")
INTERNAL = (".vantor", ".composite", ".productscache", ".alternate", ".downloading", ".previous")


def stamp(path):
    try:
        info = os.lstat(path)
        return (info.st_ino, info.st_mtime_ns, info.st_size)
    except OSError:
        return None


def named_files(entry):
    """(URL, size or None) of every file a served entry names."""
    names = [(url, None) for url in entry.get("Distributions", {}).values()]
    if "ServerMetadataURL" in entry:
        names.append((entry["ServerMetadataURL"], None))
    for package in entry.get("Packages", []):
        names.append((package.get("URL", ""), package.get("Size")))
        if "MetadataURL" in package:
            names.append((package["MetadataURL"], None))
    return names


def offered_on_demand():
    """The URL paths of the files the mirror fetches when a client asks for them."""
    try:
        with open(on_demand_index, encoding="utf-8", errors="replace") as f:
            return {line.split("\t", 1)[0] for line in f.read().splitlines()[1:]}
    except OSError:
        return set()


def check_catalog(name):
    path = os.path.join(others, name)
    on_demand = offered_on_demand()
    before = stamp(path)
    faults = []
    try:
        with open(path, "rb") as f:
            catalog = plistlib.load(f)
    except Exception as error:  # a client would get this very file
        return [f"{name}: does not parse ({type(error).__name__})"], before == stamp(path)
    for product_id, entry in catalog.get("Products", {}).items():
        for url, size in named_files(entry):
            if not url.startswith(prefix):
                faults.append(f"{name}: {product_id} names {url[:100]}, not this mirror")
                continue
            local = os.path.join(html, url[len(prefix):].split("?")[0])
            try:
                info = os.lstat(local)
            except OSError:
                if "/" + url[len(prefix):].split("?")[0] not in on_demand:
                    faults.append(f"{name}: {product_id} names missing {url[len(prefix):][:100]}")
                continue
            if not os.path.isfile(local) or os.path.islink(local):
                faults.append(f"{name}: {product_id} names a non-file {url[len(prefix):][:100]}")
            elif size is not None and info.st_size != size:
                faults.append(f"{name}: {product_id} names {url[len(prefix):][:100]} "
                              f"of {info.st_size} bytes, the catalog says {size}")
    return faults, before == stamp(path)


def look(seen, started):
    if not os.path.isdir(others):
        return
    for name in sorted(os.listdir(others)):
        if name.startswith(".") or name.endswith(INTERNAL) or not name.endswith(".ktcatalog"):
            continue
        faults, steady = check_catalog(name)
        if not steady:
            continue
        for fault in faults:
            seen.setdefault(fault, time.monotonic() - started)


seen = {}
started = time.monotonic()
process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
while process.poll() is None:
    look(seen, started)
    time.sleep(0.02)
look(seen, started)
for fault, moment in sorted(seen.items(), key=lambda item: item[1]):
    print(f"  {moment:7.2f} s  {fault}")
print(f"  pass exit {process.returncode}, {len(seen)} faults")
sys.exit(1 if seen else 0)
