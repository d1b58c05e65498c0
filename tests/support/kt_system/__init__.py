"""Drives the service from outside: files, CAN, tags.

lane     where the tests run and how patient they are
rows     configuration rows
gateway  the service with its files
bus      a CAN port seen by python-can and by candump
tags     the tag store seen by kt-tag
device   the demonstration device
rest     the REST API
"""
