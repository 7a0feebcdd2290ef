.PHONY: test demo setup

# Runs every test, C++ and Python, after the idempotent set-up.
test:
	./scripts/test.sh

# The main job: what the library does on real data, beside scikit-learn.
demo:
	./scripts/demo.sh

setup:
	./scripts/setup.sh
