# shellcheck shell=bash disable=SC2154
# apt-get may use nothing but this machine. The packages are those that the page makes.
rm -rf build/release/packages
make_app_store
useradd --system app
chown -R app: /etc/app
mkdir -p /opt/host/toolkit

# A project with these lines is compiled, with the plugins of Debian.
page_xml() {
    mkdir -p /opt/vex project/src/main/java
    cp -r build/release/java/maven-repository /opt/vex/
    cat - "$1" <<'END' >project/pom.xml
<project xmlns="http://maven.apache.org/POM/4.0.0">
  <modelVersion>4.0.0</modelVersion>
  <groupId>example</groupId>
  <artifactId>signing</artifactId>
  <version>1</version>
  <properties>
    <maven.compiler.release>17</maven.compiler.release>
    <project.build.sourceEncoding>UTF-8</project.build.sourceEncoding>
  </properties>
  <pluginRepositories>
    <pluginRepository>
      <id>central</id>
      <url>file:///usr/share/maven-repo</url>
    </pluginRepository>
  </pluginRepositories>
END
    echo '</project>' >>project/pom.xml
    echo 'class Signing { vex.client.SigningClient client; }' >project/src/main/java/Signing.java
    (cd project && mvn -o -B -q -Daether.offline.protocols=file -Dmaven.repo.local="$work/maven" compile)
}

check() {
    hint=$(sed -n 's/^To verify: //p' "$output")
    eval "$hint"
    # What systemd would start.
    grep -q '^ExecStart=vexfiled ' /usr/lib/systemd/system/vexfiled.service /lib/systemd/system/vexfiled.service
    vexfiled --version
    [ -e project/target/classes/Signing.class ] || fail "Maven has compiled nothing"
    printed "tavclientjni-tools_" "libvexclienttk-dev_" "Library runpath: [/opt/host/toolkit]" "CN=app" \
        "libVEXClientTKDll64.so => /usr/lib/jni/"
}
