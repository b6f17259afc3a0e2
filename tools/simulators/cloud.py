#!/usr/bin/env python3
"""The cloud on this machine: balancer, streaming server and account service in one program.

Prints what it sees, one plain line per event and service, and "ready" once every port listens.
Watch stream 1 with: ffplay -rtsp_transport tcp rtsp://127.0.0.1:8554/<cloud id>/1
"""

import argparse
import asyncio
import signal
import subprocess
import sys

from cloudsim import account, balancer, streaming
from cloudsim.common import Fault

SERVICES = ("balancer", "streaming", "account")


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        description="Simulates the cloud's services for the agent.",
        epilog="Faults: refuse (do not listen), accept-close, silent (accept, never send), drip "
               "(byte by byte), split (two sends; the balancer's between header and body), "
               "coalesce (two keepalives, or keepalive and OPTIONS, in one send), wrong "
               "(something that is neither keepalive nor OPTIONS), the balancer's wrong answers "
               "404, no-message, bad-value, not-http, oversize, and the account service's "
               "refusal and not-json.")
    add = parser.add_argument
    add("--only", default=",".join(SERVICES), metavar="LIST",
        help="services to run, comma-separated (default: %(default)s)")
    add("--host", default="127.0.0.1", help="address to listen on (default: %(default)s)")
    add("--balancer-port", type=int, default=8111, metavar="PORT", help="default: %(default)s")
    add("--streaming-port", type=int, default=8554, metavar="PORT", help="default: %(default)s")
    add("--account-port", type=int, default=8112, metavar="PORT", help="default: %(default)s")
    add("--https-port", type=int, metavar="PORT",
        help="serve the account service and the camera web interface (POST /) over HTTPS too, "
             "with a self-signed certificate (usual: 8443)")
    add("--cloud-id", default="demo-cloud-id-0001", metavar="ID", help="default: %(default)s")
    add("--server", metavar="HOST|PORT", help="streaming server that the balancer names "
                                              "(default: the one run here)")
    add("--keepalive", type=float, default=30, metavar="SECONDS",
        help="between keepalives of an idle registration (default: %(default)s)")
    add("--viewer-wait", type=float, default=10, metavar="SECONDS",
        help="wait of a viewer for a registration before 503 (default: %(default)s)")
    add("--balancer-fault", choices=balancer.FAULTS, default="none")
    add("--streaming-fault", choices=streaming.FAULTS, default="none")
    add("--account-fault", choices=account.FAULTS, default="none")
    add("--fault-times", type=int, default=0, metavar="N",
        help="only the first N connections of a service meet its fault (default: all)")
    options = parser.parse_args()
    options.only = options.only.split(",")
    if unknown := set(options.only) - set(SERVICES):
        parser.error(f"no such service: {', '.join(sorted(unknown))}")
    return options


async def run(options: argparse.Namespace) -> None:
    stop = asyncio.Event()
    for number in (signal.SIGINT, signal.SIGTERM):
        asyncio.get_running_loop().add_signal_handler(number, stop.set)

    def fault(name: str) -> Fault:
        return Fault(name, options.fault_times)

    streaming_port = options.streaming_port
    if "streaming" in options.only:
        server = streaming.StreamingServer(options.keepalive, options.viewer_wait,
                                           fault(options.streaming_fault))
        streaming_port = await server.start(options.host, streaming_port)
    if "balancer" in options.only:
        named = options.server or f"{options.host}|{streaming_port}"
        service = balancer.Balancer(options.cloud_id, named, fault(options.balancer_fault))
        await service.start(options.host, options.balancer_port)
    if "account" in options.only:
        accounts = account.AccountService(fault(options.account_fault))
        await accounts.start(options.host, options.account_port)
        if options.https_port is not None:
            await accounts.start_https(options.host, options.https_port)
    print("ready", flush=True)
    await stop.wait()


def main() -> int:
    try:
        asyncio.run(run(parse_arguments()))
    except OSError as error:
        print(f"cloud: cannot start: {error.strerror or error}", file=sys.stderr)
        return 1
    except subprocess.CalledProcessError as error:
        print(f"cloud: openssl failed: {error.stderr.decode(errors='replace')}", file=sys.stderr)
        return 1
    print("stopped", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
