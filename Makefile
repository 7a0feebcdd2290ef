.PHONY: test lint demo setup sanitize fuzz valgrind bench

# Runs every test, C++ and Python, after the idempotent set-up.
test:
	./scripts/test.sh

# The main job: what the library does on real data, beside scikit-learn.
demo:
	./scripts/demo.sh

setup:
	./scripts/setup.sh

# clang-format (check only), clang-tidy and ruff; changes nothing.
lint:
	./scripts/lint.sh

# The C++ and Python suites under AddressSanitizer and UBSan.
sanitize:
	./scripts/sanitize.sh

# Each libFuzzer target (tree text, description file) for FUZZ_SECONDS.
FUZZ_SECONDS ?= 60
fuzz:
	./scripts/fuzz.sh $(FUZZ_SECONDS)

# A Python learn/test/prob round trip under valgrind memcheck.
valgrind:
	./scripts/valgrind.sh

# Velmot beside its peers on identical data, split and threads (bench/README.md).
# `make bench ARGS=--quick` runs small sizes.
bench:
	./bench/setup.sh && .venv/bin/python bench/run.py $(ARGS)
