#!/usr/bin/python3
# Finds SSDP resources as any GSSDP control point does: a resource browser
# per search target on one interface. Prints "ready", then "found <target>
# <usn> <location>" per resource, and ends when every target was found
# (status 0) or the time is up (status 1). Debian's gssdp-tools has no
# discovery command of its own, so this stands in for one.
import argparse
import sys

import gi

gi.require_version("GSSDP", "1.6")
from gi.repository import Gio, GLib, GSSDP  # noqa: E402


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--interface", required=True)
    parser.add_argument("--address", help="the interface address to use, when it has several")
    parser.add_argument("--timeout", type=float, default=10.0)
    parser.add_argument("targets", nargs="+")
    args = parser.parse_args()

    address = Gio.InetAddress.new_from_string(args.address) if args.address else None
    client = GSSDP.Client.new_full(args.interface, address, 0, GSSDP.UDAVersion.VERSION_1_0)
    loop = GLib.MainLoop()
    missing = set(args.targets)
    browsers = []

    def available(browser, usn, locations, target):
        print("found", target, usn, " ".join(locations), flush=True)
        missing.discard(target)
        if not missing:
            loop.quit()

    for target in args.targets:
        browser = GSSDP.ResourceBrowser.new(client, target)
        browser.connect("resource-available", available, target)
        browser.set_active(True)
        browsers.append(browser)
    print("ready", flush=True)
    GLib.timeout_add(int(args.timeout * 1000), loop.quit)
    loop.run()
    for target in sorted(missing):
        print("missing %s" % target, flush=True)
    return 0 if not missing else 1


if __name__ == "__main__":
    sys.exit(main())
