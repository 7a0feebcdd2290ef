.PHONY: test demo setup sanitize

# Runs every test, C++ and Python, after the idempotent set-up.
test:
	./scripts/test.sh

# The main job: what the library does on real data, beside scikit-learn.
demo:
	./scripts/demo.sh

setup:
	./scripts/setup.sh

# The C++ and Python suites under AddressSanitizer and UBSan.
sanitize:
	./scripts/sanitize.sh
