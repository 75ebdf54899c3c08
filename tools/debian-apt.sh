# Fetches packages from Debian into the current directory, for scripts that read this; apt checks their
# checksums. It works with a state of its own, in which this machine's sources of Debian packages are
# sources of source packages too; what the machine itself has does not change.
# shellcheck shell=sh

private_apt() {
  apt-get -q -o APT::Sandbox::User= -o Dir::State="$PWD/apt" -o Dir::Cache="$PWD/apt" \
    -o Dir::State::status="$PWD/apt/status" "$@"
}

# debian_apt ARGUMENT...: apt-get, with Debian's packages alone.
debian_apt() {
  private_apt -o Dir::Etc::SourceList="$PWD/apt/sources.list" -o Dir::Etc::SourceParts=/dev/null "$@"
}

# begin_debian_apt: learns what Debian has; comes first.
begin_debian_apt() {
  rm -rf apt
  mkdir -p apt/lists/partial apt/archives/partial
  : >apt/status
  private_apt update
  # Which of the machine's repositories are Debian's, by whatever mirror they come; the release itself
  # before its security archive, whose list names files that it has given up.
  # shellcheck disable=SC2016 # the names are apt's
  private_apt indextargets 'Created-By: Packages' 'Origin: Debian' \
    --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' | sort -u -k 2 |
    sed 's/.*/deb &\ndeb-src &/' >apt/sources.list
  debian_apt update
}

# end_debian_apt: leaves the packages alone.
end_debian_apt() {
  rm -rf apt ./*.asc
}
