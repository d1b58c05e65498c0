"""What the service has to do, computed without it: pure functions and a simulation in plain
Python, written apart from the service's code so that tests can hold one against the other.

codec          bytes of a frame and values of its blocks, both ways
relevance      configuration rows: which columns count, defaults, lines of a file
bodies         what REST bodies become and what answers show
store          a configuration as REST edits it
random_bodies  REST bodies for it, good and spoilt
transactions   the transactions of a port as they are configured
engine         the transactions of a port as a simulation with a clock of its own
results, led   what they end with, and what the LED makes of it
bench          one port of the service beside its model
"""
