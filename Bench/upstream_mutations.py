"""Turns a generated sample upstream into a hostile or merely busy one, one scenario at a time.

Usage: upstream_mutations.py TREE BASE_URL SCENARIO [DRIP_URL]
Scenarios (each changes every catalog that lists the products it picks):
  replace      five packages get new bytes of a new size, in place
  wrong-size   three catalogs entries give a package a Size its bytes do not have
  share        one product names another's package with another size; one names a served
               catalog as a package; one names a file twice (?v=1, ?v=2) with two sizes
  oversized    a package of 10 bytes in the catalog is 64 MiB upstream
  long-name    a package whose name has 250 characters
  drip         a package served by DRIP_URL, which sends a byte now and then
  html         an HTML page where the deprecations list should be
  traversal    packages at ../, %2e%2e, an absolute path, another host, a query string
  errors       packages that loop in redirects, answer 500 or send more than their
               Content-Length, from DRIP_URL's server
  html-catalog an HTML page where the oldest catalog should be
Prints one line saying what it did.
"""
import os
import plistlib
import sys

tree, base, scenario = sys.argv[1], sys.argv[2].rstrip("/"), sys.argv[3]
others = os.path.join(tree, "content/catalogs/others")
catalogs = {}
for name in sorted(os.listdir(others)):
    try:
        with open(os.path.join(others, name), "rb") as f:
            catalogs[name] = plistlib.load(f)
    except plistlib.InvalidFileException:
        pass  # broken by an earlier scenario: left as it is
newest = max(catalogs.values(), key=lambda c: len(c["Products"]))
ids = sorted(i for i, entry in newest["Products"].items() if entry.get("Packages"))


def local(url):
    return os.path.join(tree, url[len(base) + 1:].split("?")[0])


def edit(product_id, change):
    for catalog in catalogs.values():
        if product_id in catalog["Products"]:
            change(catalog["Products"][product_id])


def put(url, data):
    os.makedirs(os.path.dirname(local(url)), exist_ok=True)
    with open(local(url), "wb") as f:
        f.write(data)


def package(product_id, index=0):
    return newest["Products"][product_id]["Packages"][index]


if scenario == "replace":
    for product_id in ids[10:15]:
        url, size = package(product_id)["URL"], package(product_id)["Size"] + 100
        put(url, os.urandom(size))
        edit(product_id, lambda e: e["Packages"][0].update(Size=size))
    done = f"replaced the first package of {', '.join(ids[10:15])}"
elif scenario == "wrong-size":
    for product_id in ids[15:18]:
        edit(product_id, lambda e: e["Packages"][0].update(Size=e["Packages"][0]["Size"] + 7))
    done = f"gave {', '.join(ids[15:18])} a package Size 7 bytes too large"
elif scenario == "share":
    owner, intruder, served, twice = ids[20], ids[21], ids[22], ids[23]
    taken = package(owner)["URL"]
    edit(intruder, lambda e: e["Packages"][0].update(URL=taken, Size=package(owner)["Size"] + 1))
    served_url = f"{base}/content/catalogs/others/{sorted(catalogs)[0]}"
    edit(served, lambda e: e["Packages"][0].update(URL=served_url, Size=10))
    first = dict(package(twice))
    second = dict(first, URL=first["URL"] + "?v=2", Size=first["Size"] + 1)
    first["URL"] += "?v=1"
    edit(twice, lambda e: e.update(Packages=[first, second]))
    done = f"{intruder} names {owner}'s package, {served} a served catalog, {twice} one file twice"
elif scenario == "oversized":
    product_id = ids[25]
    put(package(product_id)["URL"], b"o" * (64 << 20))
    edit(product_id, lambda e: e["Packages"][0].update(Size=10))
    done = f"{product_id}'s package is 64 MiB upstream, 10 bytes in the catalog"
elif scenario == "long-name":
    product_id = ids[26]
    url = f"{base}/content/downloads/long/{'n' * 246}.pkg"
    put(url, b"l" * 3000)
    edit(product_id, lambda e: e["Packages"][0].update(URL=url, Size=3000))
    done = f"{product_id}'s package has a name of 250 characters"
elif scenario == "drip":
    product_id = ids[27]
    edit(product_id, lambda e: e["Packages"][0].update(URL=sys.argv[4], Size=10000))
    done = f"{product_id}'s package drips from {sys.argv[4]}"
elif scenario == "html":
    with open(os.path.join(tree, "content/catalogs/Deprecations.plist"), "w") as f:
        f.write("<html><body><h1>503 Service Unavailable</h1></body></html>\n")
    done = "the deprecations list is an HTML page"
elif scenario == "traversal":
    hostile = [f"{base}/content/downloads/../../../../etc/passwd",
               f"{base}/content/downloads/%2e%2e/%2e%2e/%2e%2e/escaped.pkg",
               f"{base}/content/downloads/..%2f..%2f..%2fescaped.pkg",
               "file:///etc/passwd",
               "http://127.0.0.2:9/content/downloads/elsewhere.pkg",
               f"{base}/content/downloads/query.pkg?../../../escaped"]
    for product_id, url in zip(ids[30:], hostile):
        edit(product_id, lambda e, url=url: e["Packages"][0].update(URL=url, Size=100))
    done = f"{', '.join(ids[30:30 + len(hostile)])} name traversals, other hosts and queries"
elif scenario == "errors":
    server = sys.argv[4].rsplit("/content/", 1)[0]
    for product_id, what in zip(ids[36:], ["loop", "error", "long"]):
        url = f"{server}/content/downloads/{what}/{product_id}.pkg"
        edit(product_id, lambda e, url=url: e["Packages"][0].update(URL=url, Size=100))
    done = f"{', '.join(ids[36:39])} loop in redirects, answer 500, or send more than they say"
elif scenario == "html-catalog":
    oldest = min(catalogs, key=lambda name: len(catalogs[name]["Products"]))
    del catalogs[oldest]
    with open(os.path.join(others, oldest), "w") as f:
        f.write("<html><body><h1>502 Bad Gateway</h1></body></html>\n")
    done = f"{oldest} is an HTML page"
else:
    sys.exit(f"unknown scenario {scenario}")

for name, catalog in catalogs.items():
    with open(os.path.join(others, name), "wb") as f:
        plistlib.dump(catalog, f)
print(done)
