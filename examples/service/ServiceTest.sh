#!/bin/bash
# Ends the service by each signal: status 0, and every line that it counted is in the log: ServiceTest.sh PROGRAM
set -eu
export LC_ALL=C.UTF-8
for signal in TERM INT; do
    rm -f service.log
    exec 3< <(exec "$1")
    service=$!
    read -r ready <&3 && [ "$ready" = ready ]
    sleep 0.1
    kill -$signal $service
    wait $service
    for worker in 1 2; do
        written=$(grep -c "worker $worker, job" service.log)
        grep -q "worker $worker did $written jobs" service.log
    done
    tail -n 1 service.log | grep -q 'main() - ended'
done
