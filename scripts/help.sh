# Sourced by each script with its arguments: on -h or --help, prints the script's opening comment
# (what it does, its usage and options) and ends it with status 0.
case "${1:-}" in
    -h | --help)
        sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0" | sed '/^[^#]*$/!d' | sed -n '/./,$p'
        exit 0
        ;;
esac
