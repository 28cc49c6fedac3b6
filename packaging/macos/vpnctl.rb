# A Homebrew formula that builds from a checkout: brew install --build-from-source packaging/macos/vpnctl.rb --HEAD
# Homebrew may want HOMEBREW_DEVELOPER=1 for a formula outside of its taps.
# Never run on a Mac so far: see docs/macos.md.
class Vpnctl < Formula
  desc "Brings up one L2TP/IPSec connection and stays with it until it ends"
  homepage "file://#{File.expand_path("../..", __dir__)}"
  license "MIT"
  head homepage, using: :git

  depends_on "cmake" => :build
  depends_on "ninja" => :build
  depends_on "pkg-config" => :build
  depends_on "libconfig"
  depends_on macos: :big_sur
  uses_from_macos "expat"

  def install
    system "cmake", "-G", "Ninja", "-S", ".", "-B", "build", *std_cmake_args
    system "cmake", "--build", "build"
    system "cmake", "--install", "build"
  end

  test do
    output = shell_output("#{sbin}/vpnctl -c missing 2>&1", 1)
    assert_equal "error parse config: missing\n(null):0 - file I/O error\n", output
  end
end
