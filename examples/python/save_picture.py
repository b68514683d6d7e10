# Saves one revolution of a simulated radar's image: save_picture.py NAME FILE.pgm
import math
import sys

from radarwatch import Stream, Watch

SPOKES, SAMPLES, HEADER = 1024, 512, 12  # as "radarctl host --simulate" sends them, a spoke a datagram
name, file = sys.argv[1:]
spokes = {}
with Watch() as watch, Stream(watch, name, "image", on_event=print) as stream:
    for datagram in stream:
        spokes[int.from_bytes(datagram.data[8:10], "big")] = datagram.data[HEADER:]
        if len(spokes) == SPOKES:
            break

def pixel(x, y):  # samples to the east and to the north of the radar
    away = int(math.hypot(x, y))
    return spokes[int(math.atan2(x, y) / math.tau * SPOKES) % SPOKES][away] if away < SAMPLES else 0

with open(file, "wb") as picture:
    picture.write(b"P5 %d %d 255\n" % (2 * SAMPLES, 2 * SAMPLES))
    for y in range(SAMPLES, -SAMPLES, -1):
        picture.write(bytes(pixel(x, y) for x in range(-SAMPLES, SAMPLES)))
