# A deployed board with an SBE37 on port 4 in a bath of salinity 33.5 (fault_ctd_*.setup source it).
source "$(dirname "${BASH_SOURCE[0]}")/board.sh"
new_board || exit 1
run_lib sbe37.sim || exit 1
printf 'port4 = sbe37\nbath.sal = 33.5\n' >> "$board/scenario.ini"
run_lib deploy.sim || exit 1
[ "$(fram_state)" = 1 ] || fail "the board did not deploy"
