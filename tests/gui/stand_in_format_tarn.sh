#!/bin/sh
# Stands in for format_tarn: --list prints $STAND_IN_DIR/list.json; a run
# records its arguments, prints err on standard error and the lines of out on
# standard output (dying with SIGKILL at a line DIE, waiting at a line WAIT
# until the file go exists), then exits with status.
d=$STAND_IN_DIR
if [ "$1" = --list ]; then cat "$d/list.json"; exit 0; fi
printf '%s\n' "$@" > "$d/args"
cat "$d/err" >&2
while IFS= read -r line; do
    if [ "$line" = DIE ]; then kill -KILL $$; fi
    while [ "$line" = WAIT ] && [ ! -e "$d/go" ]; do sleep 0.05; done
    printf '%s\n' "$line"
done < "$d/out"
exit "$(cat "$d/status")"
