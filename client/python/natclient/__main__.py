"""python3 -m natclient sip|cm|cc DESTINATION IP:PORT...: how are these ports seen from outside?

The SIP user agent asks for signalling ports, CM and CC ask for media ports.
"""

import sys

from . import AnswerItem, CallServer, Client, CsAnswer, Error, Item, Party


def main() -> int:
    try:
        party, destination, *endpoints = sys.argv[1:]
        asker = Party[party.upper()]
        items = [Item(ip, int(port)) for ip, _, port in (endpoint.rpartition(":") for endpoint in endpoints)]
        with Client(asker) as client:
            if asker is Party.SIP:
                answer = client.request_cs_list(destination, items)
            else:
                answer = client.request_rtp(destination, items, CallServer[asker.name])
                client.request_close(answer.id)
    except (KeyError, ValueError):
        print(__doc__, file=sys.stderr)
        return 2
    except (Error, OSError) as error:
        print(f"natclient: {error}", file=sys.stderr)
        return 1
    # A host name is answered to the SIP user agent for the first item alone.
    answers = [AnswerItem(*items[0], *answer.mapped, answer.flag)] if isinstance(answer, CsAnswer) else answer.items
    for item in answers:
        print(f"{item.ip}:{item.port} -> {item.mapped_ip}:{item.mapped_port} {item.flag.name}")
    return 0


sys.exit(main())
