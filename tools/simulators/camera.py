#!/usr/bin/python3
"""A real RTSP camera: gst-rtsp-server playing a small clip in a loop, over TCP only.

Needs the Debian packages gir1.2-gst-rtsp-server-1.0 and python3-gi, hence the system's Python.
Every client has a media of its own that begins at the first frame of the clip, so that what two
clients decode can be compared frame by frame.
"""

import argparse
import re
import signal
import sys
from pathlib import Path

try:
    import gi
    gi.require_version("Gst", "1.0")
    gi.require_version("GstRtsp", "1.0")
    gi.require_version("GstRtspServer", "1.0")
    from gi.repository import GLib, Gst, GstRtsp, GstRtspServer
except (ImportError, ValueError) as error:
    sys.exit(f"camera: {error}: install gir1.2-gst-rtsp-server-1.0 and python3-gi, "
             "and run the system's /usr/bin/python3")

CLIP = Path(__file__).parent / "media" / "clip.h264"
FRAME_RATE = 15
ROLE = "viewer"


def access_units(stream: bytes) -> list[bytes]:
    """Splits H.264 at its access unit delimiters (NAL type 9): one entry per frame."""
    starts = [m.start() for m in re.finditer(rb"\x00\x00\x00\x01\x09", stream)]
    return [stream[a:b] for a, b in zip(starts, starts[1:] + [len(stream)])]


class ClipFactory(GstRtspServer.RTSPMediaFactory):
    """Makes one media per client, fed by the clip without end."""

    def __init__(self, units: list[bytes]):
        super().__init__()
        self.units = units
        self.set_shared(False)
        self.set_protocols(GstRtsp.RTSPLowerTrans.TCP)

    def do_create_element(self, _url):
        # The raw clip has no time stamps, which rules out file sources: frame n gets n/15 s.
        element = Gst.parse_launch(
            "( appsrc name=src format=time is-live=false max-bytes=65536 "
            "caps=video/x-h264,stream-format=byte-stream,alignment=au,width=320,height=240,"
            f"framerate={FRAME_RATE}/1 ! h264parse ! rtph264pay name=pay0 pt=96 )")
        element.get_by_name("src").connect("need-data", self._feed, [0])
        return element

    def _feed(self, source, _size, counter: list[int]) -> None:
        n = counter[0]
        counter[0] = n + 1
        buffer = Gst.Buffer.new_wrapped(self.units[n % len(self.units)])
        buffer.pts = buffer.dts = n * Gst.SECOND // FRAME_RATE
        buffer.duration = Gst.SECOND // FRAME_RATE
        source.emit("push-buffer", buffer)


def require_digest(server: GstRtspServer.RTSPServer, user: str, password: str) -> None:
    auth = GstRtspServer.RTSPAuth()
    auth.set_supported_methods(GstRtsp.RTSPAuthMethod.DIGEST)
    token = GstRtspServer.RTSPToken()
    token.set_string("media.factory.role", ROLE)
    auth.add_digest(user, password, token)
    server.set_auth(auth)


def allow_only_role(factory: ClipFactory) -> None:
    permissions = GstRtspServer.RTSPPermissions()
    for right in ("media.factory.access", "media.factory.construct"):
        permissions.add_permission_for_role(ROLE, right, True)
    factory.set_permissions(permissions)


def main() -> int:
    parser = argparse.ArgumentParser(description="Serves the clip as an RTSP camera.")
    parser.add_argument("--host", default="127.0.0.1",
                        help="address to listen on (default: %(default)s)")
    parser.add_argument("--port", type=int, default=5540, help="default: %(default)s")
    parser.add_argument("--path", default="/stream",
                        help="mount point; with several streams followed by 1, 2, ... "
                             "(default: %(default)s)")
    parser.add_argument("--streams", type=int, default=1, help="default: %(default)s")
    parser.add_argument("--user", help="demand digest authentication of this user")
    parser.add_argument("--password", default="")
    options = parser.parse_args()

    Gst.init(None)
    units = access_units(CLIP.read_bytes())
    server = GstRtspServer.RTSPServer()
    server.set_address(options.host)
    server.set_service(str(options.port))
    if options.user:
        require_digest(server, options.user, options.password)
    several = options.streams > 1
    paths = [options.path + (str(n) if several else "") for n in range(1, options.streams + 1)]
    for path in paths:
        factory = ClipFactory(units)
        if options.user:
            allow_only_role(factory)
        server.get_mount_points().add_factory(path, factory)
    if server.attach(None) == 0:
        print(f"camera: cannot listen on {options.host}:{options.port}", file=sys.stderr)
        return 1

    loop = GLib.MainLoop()
    for number in (signal.SIGINT, signal.SIGTERM):
        GLib.unix_signal_add(GLib.PRIORITY_HIGH, number, loop.quit)
    for path in paths:
        print(f"ready rtsp://{options.host}:{options.port}{path}", flush=True)
    loop.run()
    print("stopped", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
