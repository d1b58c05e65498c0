# shellcheck shell=bash
# apt with a state of its own: the machine's package system stays as it is, and no root is needed.
# The archives are those that the machine's apt is configured for.
#
#   private_apt FOLDER ARCHITECTURE COMMAND...
#
# Nothing counts as installed; downloads go to FOLDER/cache/archives.
private_apt() {
    local folder=$1 architecture=$2
    shift 2
    mkdir -p "$folder"/{state/lists/partial,cache/archives/partial}
    touch "$folder/status"
    apt-get -qq -o Dir::State="$folder/state" -o Dir::State::status="$folder/status" \
        -o Dir::Cache="$folder/cache" -o APT::Architecture="$architecture" \
        -o APT::Architectures="$architecture" -o APT::Sandbox::User="$(id -un)" \
        -o APT::Install-Recommends=false -o APT::Update::Post-Invoke-Success::= \
        -o DPkg::Post-Invoke::= "$@"
}
