"""Waiting for descriptors."""

import select


def happened(descriptor, events, seconds):
    """What of the events has happened on a descriptor, of any number: select takes small ones alone."""
    poll = select.poll()
    poll.register(descriptor, events)
    return sum(event for _, event in poll.poll(seconds * 1000))
