package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.DataInputStream;
import java.lang.module.ModuleDescriptor;
import java.lang.module.ModuleFinder;
import java.lang.module.ModuleReference;
import java.lang.reflect.Executable;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.Provider;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.ServiceLoader;
import java.util.Set;
import java.util.jar.Attributes;
import java.util.jar.JarEntry;
import java.util.jar.JarFile;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** What the platform reads in both jars: class versions, the module, the service, what a native image needs. */
@Tag("platform")
class JarContentTest {
    private static final Path SOURCES = Path.of(System.getProperty("vex.test.sources"));
    private static final String NATIVE_IMAGE = "META-INF/native-image/vex/tavclientjni/";
    private static final int JAVA_8 = 52;
    private static final int JAVA_9 = 53;

    static Stream<Path> jars() {
        return Stream.of("vex.test.jar", "vex.test.bundled").map(name -> Path.of(System.getProperty(name)));
    }

    private static String text(JarFile jar, String name) throws Exception {
        JarEntry entry = jar.getJarEntry(name);
        assertNotNull(entry, name);
        return new String(jar.getInputStream(entry).readAllBytes(), StandardCharsets.UTF_8);
    }

    /** Java 8 never loads the module's description. */
    @ParameterizedTest
    @MethodSource("jars")
    void java8CanLoadEveryClass(Path file) throws Exception {
        int classes = 0;
        try (JarFile jar = new JarFile(file.toFile())) {
            for (JarEntry entry : Collections.list(jar.entries())) {
                if (!entry.getName().endsWith(".class")) {
                    continue;
                }
                try (DataInputStream stream = new DataInputStream(jar.getInputStream(entry))) {
                    assertEquals(0xCAFEBABE, stream.readInt());
                    stream.readUnsignedShort();
                    int expected = entry.getName().equals("module-info.class") ? JAVA_9 : JAVA_8;
                    assertEquals(expected, stream.readUnsignedShort(), entry.getName());
                }
                ++classes;
            }
        }
        assertTrue(classes > 30, classes + " classes");
    }

    @ParameterizedTest
    @MethodSource("jars")
    void theModuleHasOneNameAndTheVersionOfTheManifest(Path file) throws Exception {
        Set<ModuleReference> modules = ModuleFinder.of(file).findAll();
        assertEquals(1, modules.size());
        ModuleDescriptor module = modules.iterator().next().descriptor();
        assertEquals("vex.client", module.name());
        assertEquals(Set.of("vex.client", "vex.jni"), module.packages());
        assertEquals(module.packages(), module.exports().stream().filter(exported -> !exported.isQualified())
            .map(ModuleDescriptor.Exports::source).collect(Collectors.toSet()));
        assertEquals(Set.of("java.base", "java.logging"),
            module.requires().stream().map(ModuleDescriptor.Requires::name).collect(Collectors.toSet()));
        assertEquals(List.of(SigningProvider.class.getName()), module.provides().iterator().next().providers());

        try (JarFile jar = new JarFile(file.toFile())) {
            Attributes manifest = jar.getManifest().getMainAttributes();
            assertEquals("TAVClientJNI", manifest.getValue(Attributes.Name.IMPLEMENTATION_TITLE));
            assertEquals(module.rawVersion().orElseThrow(), manifest.getValue(Attributes.Name.IMPLEMENTATION_VERSION));
            assertNull(manifest.getValue(Attributes.Name.MULTI_RELEASE), "which makes JVMs start slower");
        }
    }

    @Test
    void aProgramCanAskForTheVersion() throws Exception {
        try (JarFile jar = new JarFile(System.getProperty("vex.test.jar"))) {
            assertEquals(jar.getManifest().getMainAttributes().getValue(Attributes.Name.IMPLEMENTATION_VERSION),
                SigningClient.class.getPackage().getImplementationVersion());
        }
    }

    @ParameterizedTest
    @MethodSource("jars")
    void serviceLoaderFindsTheProviderOnTheClassPath(Path file) throws Exception {
        try (URLClassLoader loader = new URLClassLoader(
                new URL[] {file.toUri().toURL()}, ClassLoader.getPlatformClassLoader())) {
            List<String> found = new ArrayList<>();
            for (Provider provider : ServiceLoader.load(Provider.class, loader)) {
                if (provider.getClass().getClassLoader() == loader) {
                    found.add(provider.getClass().getName());
                }
            }
            assertEquals(List.of(SigningProvider.class.getName()), found);
        }
    }

    // ---- What a native image needs: no GraalVM runs here, so the names in the files are compared with the code ----

    private static final Pattern METHOD =
        Pattern.compile("\\{\\s*\"name\": \"([^\"]+)\",\\s*\"parameterTypes\": \\[(.*?)\\]\\s*\\}", Pattern.DOTALL);
    /** A type whose methods, if it lists some, are written as calls. */
    private static final Pattern TYPE = Pattern.compile(
        "\\{\\s*\"name\": \"([^\"]+)\"(?:,\\s*\"methods\": \\[([^{}]+)\\]|,\\s*\"allPublicMethods\": true)?\\s*\\}");

    /** The types of a file. Checks that each one exists and has the methods. */
    private static List<String> typesIn(String json) throws Exception {
        String text = METHOD.matcher(json).replaceAll(
            method -> method.group(1) + "(" + method.group(2).replaceAll("[\"\\s]", "") + ");");
        assertEquals("", TYPE.matcher(text).replaceAll("").replaceAll("[\\s,\\[\\]]", ""), "not understood");
        List<String> types = new ArrayList<>();
        Matcher type = TYPE.matcher(text);
        while (type.find()) {
            types.add(type.group(1));
            Set<String> methods = methodsOf(Class.forName(type.group(1)));
            if (type.group(2) != null) {
                for (String method : type.group(2).split(";[,\\s]*")) {
                    assertTrue(methods.contains(method.strip()), type.group(1) + " has no " + method);
                }
            }
        }
        return types;
    }

    private static Set<String> methodsOf(Class<?> type) {
        return Stream.concat(Arrays.stream(type.getDeclaredConstructors()), Arrays.stream(type.getDeclaredMethods()))
            .map(each -> (each.getName().equals(type.getName()) ? "<init>" : each.getName()) + "("
                + parametersOf(each) + ")")
            .collect(Collectors.toSet());
    }

    private static String parametersOf(Executable executable) {
        return Arrays.stream(executable.getParameterTypes()).map(Class::getTypeName).collect(Collectors.joining(","));
    }

    private static List<String> found(String pattern, String text) {
        return Pattern.compile(pattern).matcher(text).results().map(result -> result.group(1)).toList();
    }

    @ParameterizedTest
    @MethodSource("jars")
    void theNativeImageFilesNameWhatTheNativesUse(Path file) throws Exception {
        try (JarFile jar = new JarFile(file.toFile())) {
            List<String> types = typesIn(text(jar, NATIVE_IMAGE + "jni-config.json"));
            String source = Files.readString(SOURCES.resolve("TAVClientJNI/vex_jni_TAVClientJNI.cpp"));
            assertEquals(types, found("FindClass\\(\"L?([^\";]+);?\"\\)", source).stream()
                .map(name -> name.replace('/', '.')).distinct().toList());
            assertEquals(1, found("(GetMethodID)\\(", source).size());
        }
    }

    @ParameterizedTest
    @MethodSource("jars")
    void theNativeImageFilesNameWhatTheClassesUse(Path file) throws Exception {
        StringBuilder sources = new StringBuilder();
        try (Stream<Path> files = Files.walk(SOURCES.resolve("java/src"))) {
            for (Path source : files.filter(path -> path.toString().endsWith(".java")).toList()) {
                sources.append(Files.readString(source));
            }
        }
        List<String> wanted = new ArrayList<>(found("Class\\.forName\\(\"([^\"]+)\"\\)", sources.toString()));
        List<String> classes = found("(\\w+)\\.class\\s*\\.get(?:Method|Constructor|DeclaredMethod)\\(",
            sources.toString());
        assertTrue(wanted.size() >= 2 && classes.size() >= 2, wanted + " " + classes);
        try (JarFile jar = new JarFile(file.toFile())) {
            List<String> types = typesIn(text(jar, NATIVE_IMAGE + "reflect-config.json"));
            assertTrue(types.containsAll(wanted), types + " and not all of " + wanted);
            List<String> simple = types.stream().map(name -> name.replaceFirst(".*[.$]", "")).toList();
            assertTrue(simple.containsAll(classes), types + " and not all of " + classes);

            for (String name : found("\"([^\"]+)\"", text(jar, NATIVE_IMAGE + "proxy-config.json"))) {
                assertTrue(Class.forName(name).isInterface(), name);
                assertTrue(wanted.contains(name), name);
            }
        }
    }

    @Test
    void theNativeImageFilesNameTheLibrariesInTheBundledJar() throws Exception {
        try (JarFile jar = new JarFile(System.getProperty("vex.test.bundled"))) {
            String json = text(jar, NATIVE_IMAGE + "resource-config.json");
            List<String> patterns = found("\"pattern\": \"([^\"]+)\"", json);
            assertEquals(1, patterns.size());
            String pattern = patterns.get(0).replace("\\\\", "\\");
            List<String> libraries = jar.stream().map(JarEntry::getName).filter(name -> name.endsWith(".so")).toList();
            assertEquals(3, libraries.size());
            for (String library : libraries) {
                assertTrue(library.matches(pattern), library + " and " + pattern);
            }
        }
    }
}
