from radarwatch import Watch

with Watch() as watch:  # finds the interface that leads to the radars by itself
    for event in watch:
        print("\033[2J\033[H" + "radar               id  from             image")
        for radar in watch.radars():
            image = radar.streams[0].image if radar.streams else None
            print(f"{radar.name!r:18} {radar.host_id or '-':>3}  {radar.source:15}  {image}")
