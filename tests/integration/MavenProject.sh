#!/bin/bash
# A Maven project that depends on the built repository: MavenProject.sh <JDK> <repository> <version> <bridge>
#   <private_log library>
# Compiles the project offline, once with each jar, and runs it. Then looks into the other files of the repository.
# Needs Debian's Maven plugins. Neither reads nor writes the user's own Maven files.

jdk=$1
repository=$2
version=$3
bridge=$4
private_log=$5
# shellcheck source=tests/integration/Common.sh
. "$(dirname "$0")/Common.sh"
export HOME=$work XDG_DATA_HOME=$work/data JAVA_HOME=$jdk
unset JAVA_TOOL_OPTIONS JDK_JAVA_OPTIONS LD_LIBRARY_PATH MAVEN_OPTS MAVEN_ARGS
mkdir data log

# Debian's repository has no checksums. Maven refuses an artifact of ours whose checksum is wrong or missing.
cat >settings.xml <<END
<settings>
  <profiles>
    <profile>
      <id>repositories</id>
      <repositories>
        <repository>
          <id>built</id>
          <url>file://$repository</url>
          <releases><checksumPolicy>fail</checksumPolicy></releases>
        </repository>
      </repositories>
      <pluginRepositories>
        <pluginRepository>
          <id>central</id>
          <url>file:///usr/share/maven-repo</url>
          <releases><checksumPolicy>ignore</checksumPolicy></releases>
        </pluginRepository>
      </pluginRepositories>
    </profile>
  </profiles>
  <activeProfiles><activeProfile>repositories</activeProfile></activeProfiles>
</settings>
END

# compile PROJECT CLASSIFIER
compile() {
    (cd "$1" && mvn -o -B -s "$work/settings.xml" -Daether.offline.protocols=file -Dmaven.repo.local="$work/local" \
        -Dtavclientjni.version="$version" -Dtavclientjni.classifier="$2" compile >"$work/mvn.log" 2>&1)
}

# runs JAR OPTION...: the compiled program signs with the jar that Maven has copied.
runs() {
    local jar=$work/local/vex/tavclientjni/$version/tavclientjni-$version$1.jar
    LD_PRELOAD=$private_log VEX_TEST_LOG_DIR=$work/log "$jdk/bin/java" "${@:2}" --enable-native-access=vex.client \
        -p "project$1/target/classes:$jar" -m signing/signing.Main >signed || fail "with $jar: $(cat signed)"
    [ "$(grep -c ' verified$' signed)" -eq 2 ] || fail "with $jar: $(cat signed)"
    grep -qx "module vex.client@$version" signed || fail "with $jar: $(cat signed)"
}

for classifier in '' bundled; do
    echo "== the jar ${classifier:-without libraries}"
    project=project${classifier:+-$classifier}
    cp -r "$here/maven-project" "$project"
    compile "$project" "$classifier" || fail "mvn: $(cat mvn.log)"
done
runs '' "-Dvex.jni.library=$bridge"
runs -bundled

echo "== a damaged artifact"
cp -r "$repository" damaged
echo >>"damaged/vex/tavclientjni/$version/tavclientjni-$version.jar"
sed -i "s|file://$repository|file://$work/damaged|" settings.xml
rm -r local/vex project/target
! compile project '' || fail "Maven took an artifact with a wrong checksum"
grep -q 'Checksum validation failed' mvn.log || fail "mvn: $(cat mvn.log)"

echo "== the other files"
cd "$repository/vex/tavclientjni/$version"
for suffix in .pom .jar -bundled.jar -sources.jar -javadoc.jar; do
    file=tavclientjni-$version$suffix
    for algorithm in md5 sha1 sha256; do
        echo "$(cat "$file.$algorithm")  $file" | "${algorithm}sum" --check --quiet || fail "$file.$algorithm"
    done
done
"$jdk/bin/jar" --list --file "tavclientjni-$version-sources.jar" >"$work/sources"
"$jdk/bin/jar" --list --file "tavclientjni-$version.jar" | grep '\.class$' | grep -v '\$' >"$work/classes"
[ "$(wc -l <"$work/classes")" -gt 20 ] || fail "classes: $(cat "$work/classes")"
while read -r class; do
    grep -qx "${class%.class}.java" "$work/sources" || fail "no source of $class"
done <"$work/classes"
"$jdk/bin/jar" --list --file "tavclientjni-$version-javadoc.jar" >"$work/pages"
for page in index.html vex.client/vex/client/SigningClient.html vex.client/vex/jni/TAVClientJNI.html; do
    grep -qx "$page" "$work/pages" || fail "no page $page"
done

echo "all passed"
