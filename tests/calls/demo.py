"""Makes the same call in several ways and prints what became of it."""

import call_bed

LINE = "{:34}{:>17}{:>9}{:>8}{:>7}{:>6}{:>9}"

print(f"sipp on {call_bed.DEVICE} calls baresip on {call_bed.FAR_END} through the router {call_bed.PUBLIC}")
print(LINE.format("the public side", "media offered", "RTP out", "RTP in", "lost*", "BYE", "seconds"))
for way in call_bed.WAYS:
    got = call_bed.call(way)
    print(LINE.format(way.name, got.offered, got.rtp_out, got.rtp_in, got.lost, "yes" if got.bye else "no",
                      f"{got.seconds:.1f}"), flush=True)
print("* packets that the far end sent to private addresses")
