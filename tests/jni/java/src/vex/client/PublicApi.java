package vex.client;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.lang.reflect.Modifier;
import java.nio.file.Path;
import java.util.List;
import java.util.jar.JarEntry;
import java.util.jar.JarFile;

/** The public classes of the product. */
final class PublicApi {
    private PublicApi() {}

    /** In the order of their names. */
    static List<Class<?>> classes() {
        try (JarFile jar = new JarFile(Path.of(System.getProperty("vex.test.jar")).toFile())) {
            return jar.stream().map(JarEntry::getName)
                .filter(name -> name.startsWith("vex/") && name.endsWith(".class") && !name.endsWith("-info.class"))
                .sorted()
                .<Class<?>>map(name -> load(name.replace(".class", "").replace('/', '.')))
                .filter(PublicApi::isPublic)
                .toList();
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    private static Class<?> load(String name) {
        try {
            return Class.forName(name, false, PublicApi.class.getClassLoader());
        } catch (ClassNotFoundException e) {
            throw new AssertionError(e);
        }
    }

    private static boolean isPublic(Class<?> type) {
        return Modifier.isPublic(type.getModifiers())
            && (type.getEnclosingClass() == null || isPublic(type.getEnclosingClass()));
    }
}
