#!/usr/bin/python3
# Browses a media server as a GUPnP control point does: discovers it by SSDP
# on one interface, then walks the whole ContentDirectory tree through a
# ServiceProxy, in pages of 7 and again of 500, and parses every Result
# with GUPnP-AV's DIDL-Lite parser. Each container must be reached once, list
# as many children as its TotalMatches and its childCount say, and hold each
# object id at most once; every page size must see the same tree. Then odd
# requests: each must get its UPnP fault, or the page its arguments read
# as, and a good request after it must be answered.
#
# Prints "reached <id word>" once per real item found (a reference counts
# for its target), "failed ..." per problem and "done" with status 0 when
# there was none. Needs Debian's python3-gi, gir1.2-gupnp-1.6 and
# gir1.2-gupnp-av-1.0.
import argparse
import socket
import sys
import urllib.parse
from xml.etree import ElementTree

import gi

gi.require_version("GSSDP", "1.6")
gi.require_version("GUPnP", "1.6")
gi.require_version("GUPnPAV", "1.0")
from gi.repository import Gio, GLib, GObject, GSSDP, GUPnP, GUPnPAV  # noqa: E402

MEDIA_SERVER = "urn:schemas-upnp-org:device:MediaServer:1"
CDS = "urn:schemas-upnp-org:service:ContentDirectory:1"
BROWSE_IN = ["ObjectID", "BrowseFlag", "Filter", "StartingIndex", "RequestedCount", "SortCriteria"]
BROWSE_OUT = (["Result", "NumberReturned", "TotalMatches", "UpdateID"],
              [GObject.TYPE_STRING, GObject.TYPE_UINT, GObject.TYPE_UINT, GObject.TYPE_UINT])
MAX_CONTAINERS = 5000           # every loop is bounded, whatever the server says
MAX_PAGES = 2000

problems = []


def fail(*words):
    problems.append(" ".join(str(w) for w in words))
    print("failed", *words, flush=True)


def discover(interface, address, timeout):
    context = GUPnP.Context.new_full(interface, Gio.InetAddress.new_from_string(address), 0,
                                     GSSDP.UDAVersion.VERSION_1_0)
    loop, found = GLib.MainLoop(), []
    control_point = GUPnP.ControlPoint.new(context, MEDIA_SERVER)
    control_point.connect("device-proxy-available",
                          lambda cp, device: found.append(device.get_service(CDS)) or loop.quit())
    control_point.set_active(True)
    GLib.timeout_add(int(timeout * 1000), loop.quit)
    loop.run()
    return found[0] if found else None, (context, control_point)


def call(proxy, name, names, values, out=BROWSE_OUT):
    """The out values of an action, or the UPnP error code of its fault."""
    action = GUPnP.ServiceProxyAction.new_from_list(name, names, values)
    try:
        proxy.call_action(action, None)
        ok, got = action.get_result_list(*out)
        return got if ok else -1
    except GLib.Error as e:
        return e.code


def browse(proxy, object_id, start, count, flag="BrowseDirectChildren"):
    return call(proxy, "Browse", BROWSE_IN, [object_id, flag, "*", start, count, ""])


def parse(didl, where):
    """The objects of a Result. GUPnP-AV recovers from broken XML without a
    word, so the text must also be well-formed; and it calls a DIDL-Lite
    without children an error, so such a one is not given to it."""
    objects = []
    try:
        if len(ElementTree.fromstring(didl)) == 0:
            return objects
    except ElementTree.ParseError as e:
        fail("xml", where, e)
        return objects
    parser = GUPnPAV.DIDLLiteParser.new()
    parser.connect("object-available", lambda p, o: objects.append(o))
    try:
        parser.parse_didl(didl)
    except GLib.Error as e:
        fail("didl", where, e.message)
    return objects


def walk(proxy, page, items=None):
    """Container id -> its children's ids in order, and the real items
    reached; items, when given, gets each item object by its id."""
    tree, reached, queue, counts = {}, set(), ["0"], {}
    while queue and len(tree) < MAX_CONTAINERS:
        cid = queue.pop()
        children, total = [], None
        for _ in range(MAX_PAGES):
            got = browse(proxy, cid, len(children), page)
            if isinstance(got, int):
                fail("browse", cid, "at", len(children), "fault", got)
                break
            result, returned, matches, _update = got
            objects = parse(result, cid)
            if len(objects) != returned or returned > page or total not in (None, matches):
                fail("page", cid, "at", len(children), "returned", returned, "parsed", len(objects), "total", matches)
            total = matches
            children += objects
            if returned == 0 or len(children) >= total:
                break
        if len(children) != total or counts.get(cid, total) != total:
            fail("count", cid, "listed", len(children), "total", total, "childCount", counts.get(cid))
        tree[cid] = [o.get_id() for o in children]
        if len(set(tree[cid])) != len(tree[cid]):
            fail("twice in", cid)
        for o in children:
            if o.get_parent_id() != cid:
                fail("parent", o.get_id(), o.get_parent_id(), "in", cid)
            if isinstance(o, GUPnPAV.DIDLLiteContainer):
                if o.get_id() in tree or o.get_id() in queue:
                    fail("container reached twice", o.get_id())
                else:
                    queue.append(o.get_id())
                    counts[o.get_id()] = o.get_child_count()
            else:
                reached.add((o.get_ref_id() or o.get_id()).split("$")[-1])
                if items is not None:
                    items[o.get_id()] = o
    if queue:
        fail("more containers than", MAX_CONTAINERS)
    return tree, reached


def raw_post(control_url, action, body):
    """The whole answer to one POST on a connection of its own."""
    url = urllib.parse.urlsplit(control_url)
    head = "POST %s HTTP/1.1\r\nHost: %s\r\nSOAPACTION: \"%s#%s\"\r\nContent-Length: %d\r\nConnection: close\r\n\r\n"
    with socket.create_connection((url.hostname, url.port), timeout=10) as s:
        s.sendall((head % (url.path, url.netloc, CDS, action, len(body))).encode() + body)
        return s.makefile("rb").read(1 << 20).decode(errors="replace")


def refusals(proxy, root_total):
    """Each odd request gets its fault, or the page the count reads as; the
    next good request is answered."""
    def shape(got):          # a fault's code, or a page's returned and total counts
        return got if isinstance(got, int) else (got[1], got[2], len(parse(got[0], "odd request")))

    def codes_of(text):
        return [int(t.split("</errorCode>")[0]) for t in text.split("<errorCode>")[1:]]

    def odd_count(count):
        return call(proxy, "Browse", BROWSE_IN, ["0", "BrowseDirectChildren", "*", 0, count, ""])

    cases = [
        ("unknown object", lambda: shape(browse(proxy, "4242$4242", 0, 10)), 701),
        ("bad flag", lambda: shape(browse(proxy, "0", 0, 10, "browsedirectchildren")), 402),
        ("negative start", lambda: shape(browse(proxy, "0", -1, 10)), 402),
        ("start past the end", lambda: shape(browse(proxy, "0", root_total + 3, 10)), (0, root_total, 0)),
        # A count reads as a C integer would: a negative one lists nothing,
        # one that is no number reads as 0, which asks for all.
        ("negative count", lambda: shape(odd_count(-1)), (0, root_total, 0)),
        ("count not a number", lambda: shape(odd_count("ten")), (root_total, root_total, root_total)),
        ("unknown action", lambda: shape(call(proxy, "FindEverything", ["ObjectID"], ["0"])), 401),
        ("body not XML", lambda: codes_of(raw_post(proxy.get_control_url(), "Browse", b"<<not xml at all")),
         [710, 402]),
    ]
    for name, run, want in cases:
        got = run()
        if got != want:
            fail("refusal", name, "got", got, "want", want)
        answer = browse(proxy, "0", 0, 0, "BrowseMetadata")
        if isinstance(answer, int) or answer[1] != 1:
            fail("after", name, "metadata of the root", answer)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--interface", required=True)
    parser.add_argument("--address", required=True)
    parser.add_argument("--timeout", type=float, default=15.0)
    args = parser.parse_args()

    proxy, keep = discover(args.interface, args.address, args.timeout)
    if not proxy:
        fail("no ContentDirectory found")
        return 1
    walks = [walk(proxy, page) for page in (7, 500)]
    for tree, reached in walks[1:]:
        if tree != walks[0][0]:
            fail("the page sizes saw different trees")
    for item in sorted(walks[0][1]):
        print("reached", item)
    refusals(proxy, len(walks[0][0]["0"]))
    print("containers", len(walks[0][0]), "items", len(walks[0][1]))
    if not problems:
        print("done")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
