# shellcheck shell=bash disable=SC2024,SC2154
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

# open_to FILE USER: an access control list lets the user read the file or directory of root, as systemd does it.
open_to() {
    python3 - "$1" "$(id -u "$2")" <<'END'
import os, stat, struct, sys
path, user = sys.argv[1], int(sys.argv[2])
may = 5 if stat.S_ISDIR(os.stat(path).st_mode) else 4
nobody = 0xFFFFFFFF
entries = [(0x01, may, nobody), (0x02, may, user), (0x04, 0, nobody), (0x10, may, nobody), (0x20, 0, nobody)]
acl = struct.pack("<I", 2) + b"".join(struct.pack("<HHI", *entry) for entry in entries)
os.setxattr(path, "system.posix_acl_access", acl)
END
}

# The service of the page, with the credentials that systemd would make for it.
check_credentials() {
    local credentials=/run/credentials/app.service store
    mount -t tmpfs tmpfs /run
    mkdir -p "$credentials"
    mount -t tmpfs -o mode=0700 tmpfs "$credentials"
    install -m 0400 /etc/app/pin "$credentials/pin"
    open_to "$credentials/pin" app
    open_to "$credentials" app
    mount -o remount,ro,nosuid,nodev,noexec "$credentials"
    [ "$(stat -c '%U %a' "$credentials" "$credentials/pin")" = "root 550
root 440" ] || fail "$(stat -c '%n %U %a' "$credentials" "$credentials/pin") is not as systemd makes it"

    chown root: /etc/app/pin
    mkdir -p /opt/app
    cat >/opt/app/Service.java <<'END'
import java.nio.file.*;
import java.security.KeyStore;
import java.util.Collections;
import vex.client.*;

public class Service {
    public static void main(String[] args) throws Exception {
        Path file = Paths.get("/etc/app/keys.p12");
        Path pin = Paths.get(System.getenv("CREDENTIALS_DIRECTORY"), "pin");
        if (Files.isReadable(Paths.get("/etc/app/pin"))) {
            throw new IllegalStateException("the service can read root's file");
        }
        for (SigningClient.Builder builder : new SigningClient.Builder[] {
                SigningClient.store(System.getenv("APP_STORE")), SigningClient.file(file).pinFile(pin)}) {
            try (SigningClient client = builder.open()) {
                System.out.println(client.signer().getSubjectX500Principal() + " " + client.signRaw("text").length);
            }
        }
        KeyStore store = KeyStore.getInstance("VexClient", new SigningProvider());
        store.load(StoreParameter.file(file, pin));
        System.out.println(Collections.list(store.aliases()));
    }
}
END
    javac -cp /usr/share/java/tavclientjni.jar /opt/app/Service.java
    store=$(sed -n 's/^Environment=\(APP_STORE=.*\)/\1/p' docs/deployment.md)
    sudo -u app env "${store//%d/$credentials}" "CREDENTIALS_DIRECTORY=$credentials" java \
        --enable-native-access=ALL-UNNAMED -Djava.library.path=/usr/lib/jni \
        -cp /opt/app:/usr/share/java/tavclientjni.jar Service |
        diff - <(printf '%s\n' "CN=app 256" "CN=app 256" "[app]")
}

check() {
    # The switch is the one of the page about the log.
    mkdir "$work/log-page"
    "$page_directory/blocks.py" docs/diagnostic-log.md "$work/log-page"
    cmp "$work/log-page"/*.ini /var/log.ini
    check_credentials
    verify_as_printed
    # What systemd would start.
    grep -q '^ExecStart=vexfiled ' /usr/lib/systemd/system/vexfiled.service /lib/systemd/system/vexfiled.service
    vexfiled --version
    [ -e project/target/classes/Signing.class ] || fail "Maven has compiled nothing"
    printed "tavclientjni-tools_" "libvexclienttk-dev_" "Library runpath: [/opt/host/toolkit]" "CN=app" \
        "libVEXClientTKDll64.so => /usr/lib/jni/"
}
