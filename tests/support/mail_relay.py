"""A mail relay for the tests, on aiosmtpd. What arrives is kept as it came and taken apart by Python's email package.

mail_relay.py ADDRESS PORT FOLDER [OPTION...]
  no-ehlo           knows only HELO
  auth=PLAIN,LOGIN  what is offered; the user is "bert" with the password "t0p secret"
  refuse=TEXT       refuses recipients whose address contains TEXT
  refuse-mail       refuses the mail after its end
  big=N             takes mails of at most N bytes
  silent            accepts and never speaks
  trickle           greets with one byte a second
  close=COMMAND     hangs up at that command
Writes FOLDER/ready once it listens, and for each mail N: FOLDER/N.eml (raw), FOLDER/N.json (envelope, header fields as
a person reads them, parts; contents as hex) and, last of all, FOLDER/N.done.
"""
import asyncio
import email
import email.policy
import json
import os
import sys

from aiosmtpd.smtp import SMTP, AuthResult, LoginPassword


def part_of(part):
    content = part.get_payload(decode=True) or b""
    return {
        "type": part.get_content_type(),
        "encoding": part.get("Content-Transfer-Encoding", ""),
        "charset": part.get_content_charset() or "",
        "name": part.get_filename() or "",
        "disposition": part.get_content_disposition() or "",
        "content": content.hex(),
        "defects": [repr(d) for d in part.defects],
    }


def mail_of(raw):
    parsed = email.message_from_bytes(raw, policy=email.policy.default)
    legacy = email.message_from_bytes(raw, policy=email.policy.SMTP)
    leaves = [p for p in legacy.walk() if not p.is_multipart()]

    def people(field):
        values = parsed.get_all(field, [])
        return [[a.display_name, a.addr_spec] for v in values for a in v.addresses]

    return {
        "names": [name for name, _ in parsed.items()],
        "subject": str(parsed.get("Subject", "")),
        "from": people("From"), "to": people("To"), "cc": people("Cc"),
        "date": parsed["Date"].datetime.isoformat() if parsed["Date"] else "",
        "boundary": parsed.get_boundary() or "",
        "longest_line": max((len(l) for l in raw.split(b"\r\n")), default=0),
        "bare_ends": raw.replace(b"\r\n", b"").count(b"\n") + raw.replace(b"\r\n", b"").count(b"\r"),
        "parts": [part_of(p) for p in leaves],
        "defects": [repr(d) for d in parsed.defects],
    }


class Relay:
    def __init__(self, folder, options):
        self.folder, self.options, self.count = folder, options, 0

    async def handle_RCPT(self, server, session, envelope, address, rcpt_options):
        text = self.options.get("refuse")
        if text and text in address:
            return "550 5.1.1 nobody of that name"
        envelope.rcpt_tos.append(address)
        return "250 OK"

    async def handle_DATA(self, server, session, envelope):
        if "refuse-mail" in self.options:
            return "554 5.7.1 not this one"
        raw = envelope.original_content
        self.count += 1
        base = os.path.join(self.folder, str(self.count))
        with open(base + ".eml", "wb") as out:
            out.write(raw)
        story = mail_of(raw)
        story.update(sender=envelope.mail_from, recipients=envelope.rcpt_tos,
                     user=session.auth_data.login.decode() if session.auth_data else "",
                     host=session.host_name or "", extended=bool(session.extended_smtp))
        with open(base + ".json", "w") as out:
            json.dump(story, out)
        open(base + ".done", "w").close()
        return "250 OK"


def authenticate(server, session, envelope, mechanism, data):
    good = isinstance(data, LoginPassword) and data.login == b"bert" and data.password == b"t0p secret"
    return AuthResult(success=good, handled=good, auth_data=data)


class Server(SMTP):
    options = {}

    async def smtp_EHLO(self, hostname):
        if "no-ehlo" in self.options:
            await self.push("502 5.5.1 never heard of it")
            return
        await super().smtp_EHLO(hostname)


def closing(command):
    async def close(self, *_):
        self.transport.abort()
    return {"smtp_" + command: close}


async def silent(reader, writer, trickle):
    try:
        if trickle:
            for byte in b"220 " + b"x" * 1000:
                writer.write(bytes([byte]))
                await writer.drain()
                await asyncio.sleep(1)
        await reader.read(-1)
    except ConnectionError:
        pass


async def main():
    address, port, folder = sys.argv[1], int(sys.argv[2]), sys.argv[3]
    options = dict((o.split("=", 1) + [""])[:2] for o in sys.argv[4:])
    loop = asyncio.get_running_loop()
    if "silent" in options or "trickle" in options:
        server = await asyncio.start_server(lambda r, w: silent(r, w, "trickle" in options), address, port)
    else:
        members = dict(closing(options["close"])) if "close" in options else {}
        members["options"] = options
        kind = type("Relay_server", (Server,), members)
        offered = [w for w in options.get("auth", "").split(",") if w]
        relay = Relay(folder, options)
        server = await loop.create_server(
            lambda: kind(relay, hostname="relay.test", data_size_limit=int(options.get("big", 0)) or None,
                         authenticator=authenticate, auth_require_tls=False, auth_required=bool(offered),
                         auth_exclude_mechanism=[m for m in ("PLAIN", "LOGIN") if m not in offered]),
            address, port)
    open(os.path.join(folder, "ready"), "w").close()
    async with server:
        await server.serve_forever()


asyncio.run(main())
