#!/usr/bin/python3
# Looks at a media server as a GUPnP control point does: discovers it by
# SSDP on one interface, builds the device from its description, fetches its
# icons and introspects every service; the registrar, which the description
# does not list, through a small carrier description that names its document.
# Prints one line per fact: "name <friendly name>", "icon <mime> <w>x<h>
# <bytes>", "action <service type> <action> <argument>:<in|out>:<variable>...",
# "unrelated ..." for an argument without its state variable, "failed ...",
# and "done" with status 0 once everything was seen. Needs Debian's
# python3-gi and gir1.2-gupnp-1.6.
import argparse
import os
import sys
import tempfile
import urllib.parse

import gi

gi.require_version("GSSDP", "1.6")
gi.require_version("GUPnP", "1.6")
from gi.repository import Gio, GLib, GSSDP, GUPnP  # noqa: E402

MEDIA_SERVER = "urn:schemas-upnp-org:device:MediaServer:1"
REGISTRAR = "urn:microsoft.com:service:X_MS_MediaReceiverRegistrar:1"

CARRIER = """<?xml version="1.0"?>
<root xmlns="urn:schemas-upnp-org:device-1-0">
<specVersion><major>1</major><minor>0</minor></specVersion>
<device><deviceType>urn:schemas-upnp-org:device:Basic:1</deviceType>
<UDN>uuid:00000000-0000-4000-8000-000000000001</UDN><friendlyName>carrier</friendlyName>
<manufacturer>test</manufacturer><modelName>test</modelName>
<serviceList><service><serviceType>%s</serviceType>
<serviceId>urn:microsoft.com:serviceId:X_MS_MediaReceiverRegistrar</serviceId>
<SCPDURL>%s</SCPDURL><eventSubURL>/event</eventSubURL><controlURL>%s</controlURL></service></serviceList>
</device></root>
"""


def say(*words):
    print(" ".join(str(w) for w in words), flush=True)


class Inspector:
    def __init__(self, context, loop, scratch):
        self.context, self.loop, self.scratch = context, loop, scratch
        self.pending = 0
        self.failed = self.found = False
        self.keep = []          # proxies and carriers stay alive while their calls run

    def finish(self):
        self.pending -= 1
        if self.pending == 0:
            self.loop.quit()

    def device_available(self, control_point, device):
        if self.found:
            return
        self.found = True
        self.keep.append(device)
        say("name", device.get_friendly_name())
        self.pending += 1
        for mime in ("image/jpeg", "image/png"):
            for size in (120, 80, 48):
                self.pending += 1
                device.get_icon_async(mime, -1, size, size, False, None, self.icon_done)
        # GUPnP reaches only services that a description lists; a root device
        # of its own carries a description that lists the registrar.
        location = device.get_location()
        with open(os.path.join(self.scratch, "carrier.xml"), "w") as f:
            f.write(CARRIER % (REGISTRAR, urllib.parse.urljoin(location, "/MediaReceiverRegistrar.xml"),
                               urllib.parse.urljoin(location, "/MediaReceiverRegistrar/Control")))
        carrier = GUPnP.RootDevice.new(self.context, "carrier.xml", self.scratch)
        self.keep.append(carrier)
        for service in device.list_services() + carrier.list_services():
            self.keep.append(service)
            self.pending += 1
            service.introspect_async(None, self.introspected)
        self.finish()

    def icon_done(self, device, result):
        try:
            data, mime, _depth, width, height = device.get_icon_finish(result)
            say("icon", mime, "%dx%d" % (width, height), data.get_size() if data else 0)
        except GLib.Error as e:
            say("failed icon", e.message)
            self.failed = True
        self.finish()

    def introspected(self, service, result):
        kind = service.get_service_type()
        try:
            info = service.introspect_finish(result)
        except GLib.Error as e:
            say("failed", kind, e.message)
            self.failed, info = True, None
        for action in info.list_actions() if info else []:
            variables = {v.name for v in info.list_state_variables()}
            words = []
            for arg in action.arguments:
                way = "in" if arg.direction == GUPnP.ServiceActionArgDirection.IN else "out"
                words.append("%s:%s:%s" % (arg.name, way, arg.related_state_variable))
                if arg.related_state_variable not in variables:
                    say("unrelated", kind, action.name, arg.name, arg.related_state_variable)
            say("action", kind, action.name, *words)
        self.finish()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--interface", required=True)
    parser.add_argument("--address", help="the interface address to use, when it has several")
    parser.add_argument("--timeout", type=float, default=15.0)
    args = parser.parse_args()

    address = Gio.InetAddress.new_from_string(args.address) if args.address else None
    context = GUPnP.Context.new_full(args.interface, address, 0, GSSDP.UDAVersion.VERSION_1_0)
    loop = GLib.MainLoop()
    with tempfile.TemporaryDirectory() as scratch:
        inspector = Inspector(context, loop, scratch)
        control_point = GUPnP.ControlPoint.new(context, MEDIA_SERVER)
        control_point.connect("device-proxy-available", inspector.device_available)
        control_point.set_active(True)
        timed_out = []
        GLib.timeout_add(int(args.timeout * 1000), lambda: timed_out.append(1) or loop.quit())
        loop.run()
        ok = inspector.found and not inspector.failed and not timed_out
        if ok:
            say("done")
        return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
