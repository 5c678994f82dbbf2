#!/bin/sh
# As ci/shipping.sh, for rsyslog alone.
exec "$(dirname "$0")/shipping.sh" rsyslog
