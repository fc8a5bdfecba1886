# The front door. Every target works by itself in a fresh clone and installs what it lacks.
# `make help` lists them.

JOBS ?= $(shell nproc 2>/dev/null || echo 2)
export JOBS

.DEFAULT_GOAL := build
.PHONY: build demo test bench lint sweep fuzz iphone package check-iphone clean help

## build         build/morvane_cli and build/morvane_phone for this machine (the default)
build:
	@scripts/need build
	@scripts/build host

## demo          the tool at work on a simulated phone
demo: build
	@scripts/need demo
	@scripts/demo

## test          all tests, with the address and undefined-behaviour sanitizers
test:
	@scripts/need build test
	@scripts/test

## bench         the benchmarks, against what a user would run instead
bench: build
	@scripts/need bench
	@scripts/bench

## lint          format, warnings of both compilers, clang-tidy, scripts, structure
lint:
	@scripts/need build test lint
	@scripts/lint

## sweep         the tool killed at every system call, failed by every one, and cut off its power
sweep:
	@scripts/need build test lint
	@scripts/sweep

## fuzz          each fuzz target for a set time (FUZZ_SECONDS)
fuzz:
	@scripts/need build fuzz
	@scripts/fuzz

## iphone        build/iphone/morvane_cli, signed
iphone:
	@scripts/need iphone
	@scripts/iphone

## package       the .deb packages for the phone
package: iphone
	@scripts/package

## check-iphone  what can be verified of the phone's binary and packages on this machine
check-iphone: package
	@scripts/check-iphone

## clean         remove everything that was built
clean:
	rm -rf build

## help          this list
help:
	@sed -n 's/^## /  make /p' Makefile
