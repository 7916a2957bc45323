"""An SMTP server for the mail tests, on aiosmtpd: serves on a free port of 127.0.0.1, which it
prints, until its standard input ends. Message N (from 1) goes to FOLDER/N.envelope (HELO name,
sender, recipients, a line each) and FOLDER/N.content (the data as received). AUTH DIGEST-MD5
writes FOLDER/auth: the EHLO name and the client's answer to the challenge."""
import argparse
import asyncio
import logging
import os
import sys

from aiosmtpd.smtp import SMTP, AuthResult

parser = argparse.ArgumentParser()
parser.add_argument("folder")
parser.add_argument("--refuse-sender", default="")
parser.add_argument("--refuse-recipient", default="")
parser.add_argument("--refusal", default="550 5.7.1 Refused")
parser.add_argument("--close-at", default="", help="MAIL or RCPT: close instead of replying")
parser.add_argument("--silent", action="store_true", help="accept and never answer")
parser.add_argument("--digest", action="store_true", help="offer DIGEST-MD5")
args = parser.parse_args()


def write(name, data):
    path = os.path.join(args.folder, name)
    with open(path + ".part", "wb") as f:
        f.write(data)
    os.rename(path + ".part", path)  # whole or not at all


class Handler:
    count = 0

    async def handle_EHLO(self, server, session, envelope, hostname, responses):
        session.host_name = hostname
        # All lines in one write, so that a single receive gets them all.
        return ["\r\n".join(responses)]

    async def handle_MAIL(self, server, session, envelope, address, options):
        if self.accepts(server, "MAIL", address != args.refuse_sender):
            envelope.mail_from = address
            return "250 OK"
        return args.refusal

    async def handle_RCPT(self, server, session, envelope, address, options):
        if self.accepts(server, "RCPT", address != args.refuse_recipient):
            envelope.rcpt_tos.append(address)
            return "250 OK"
        return args.refusal

    def accepts(self, server, command, accepted):
        if args.close_at == command:
            server.transport.close()
        return accepted

    async def handle_DATA(self, server, session, envelope):
        Handler.count += 1
        lines = [session.host_name, envelope.mail_from] + envelope.rcpt_tos
        write(f"{Handler.count}.content", envelope.original_content)
        write(f"{Handler.count}.envelope", "\n".join(lines).encode())
        return "250 OK"

    async def auth_DIGEST__MD5(self, server, words):
        answer = await server.challenge_auth(b"realm=peer", encode_to_b64=True)
        write("auth", f"{server.session.host_name}\n{answer!r}".encode())
        return AuthResult(success=False)


async def main():
    loop = asyncio.get_running_loop()
    if args.silent:
        factory = asyncio.Protocol
    else:
        factory = lambda: SMTP(Handler(), hostname="peer", ident="test peer",
                               auth_require_tls=not args.digest)
    server = await loop.create_server(factory, "127.0.0.1", 0)
    print(server.sockets[0].getsockname()[1], flush=True)
    await loop.run_in_executor(None, sys.stdin.read)
    server.close()


logging.disable(logging.CRITICAL)
asyncio.run(main())
