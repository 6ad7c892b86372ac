#!/usr/bin/env bash
# What is foretold of a document, what the agent answers and what the plugin does, for mutated documents.
#
#   QXP_MUTANTS=COUNT QXP_SEED=NUMBER: other documents, and more
# shellcheck source=tests/system/lib.sh
. "$(dirname "$0")/lib.sh"
start_agent
"$QXP_BUILD/bin/agreement_driver" "$socket" "$QXP_KEY" "$QXP_PUBLIC_KEY" "${QXP_MUTANTS:-300}" "${QXP_SEED:-1}"
stop_agent TERM
