"""A second reading of the feed: what it must do with every byte, written without its sources.

The differential runner (tests/differential) drives the feed and this model with the same scenarios
and compares everything that can be observed. The model is written for reading, not for speed: one
module for one concern, plain Python, no dependency outside the standard library.
"""
