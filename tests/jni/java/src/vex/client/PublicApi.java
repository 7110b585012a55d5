package vex.client;

import java.io.IOException;
import java.io.UncheckedIOException;
import java.lang.reflect.Constructor;
import java.lang.reflect.Executable;
import java.lang.reflect.Field;
import java.lang.reflect.Member;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.lang.reflect.Parameter;
import java.lang.reflect.Type;
import java.net.URISyntaxException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collection;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import java.util.jar.JarEntry;
import java.util.jar.JarFile;
import java.util.stream.Collectors;
import java.util.stream.Stream;

/** The public classes of the product. As a program, it prints a listing of them that is the same with every JDK. */
final class PublicApi {
    private PublicApi() {}

    public static void main(String[] args) {
        System.out.print(listing());
    }

    /** In the order of their names. */
    static List<Class<?>> classes() {
        try (JarFile jar = new JarFile(productJar().toFile())) {
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

    /** The public and protected members of the public classes, one a line. */
    static String listing() {
        StringBuilder text = new StringBuilder();
        for (Class<?> type : classes()) {
            text.append(text.length() == 0 ? "" : "\n").append(header(type)).append('\n');
            Stream<String> constants = Stream.of(type.getDeclaredFields())
                .filter(Field::isEnumConstant).map(Field::getName);
            String names = constants.collect(Collectors.joining(", "));
            text.append(names.isEmpty() ? "" : "  " + names + "\n");
            members(type).forEach(member -> text.append("  ").append(member).append('\n'));
        }
        return text.toString();
    }

    private static Path productJar() {
        try {
            return Path.of(SigningClient.class.getProtectionDomain().getCodeSource().getLocation().toURI());
        } catch (URISyntaxException e) {
            throw new AssertionError(e);
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

    private static String header(Class<?> type) {
        String kind = type.isEnum() ? "enum" : type.isInterface() ? "interface" : "class";
        int modifiers = type.getModifiers() & ~Modifier.INTERFACE & (type.isEnum() ? ~Modifier.FINAL : ~0);
        List<String> above = new ArrayList<>();
        if (type.getSuperclass() != null && type.getSuperclass() != Object.class && !type.isEnum()) {
            above.add("extends " + type.getGenericSuperclass().getTypeName());
        }
        for (Type implemented : type.getGenericInterfaces()) {
            above.add("implements " + implemented.getTypeName());
        }
        String parameters = Stream.of(type.getTypeParameters())
            .map(parameter -> parameter + " extends " + parameter.getBounds()[0].getTypeName())
            .collect(Collectors.joining(", "));
        String name = Modifier.toString(modifiers) + " " + kind + " " + type.getName()
            + (parameters.isEmpty() ? "" : "<" + parameters + ">");
        return above.isEmpty() ? name : name + " " + String.join(" ", above);
    }

    /** In the order of their names. */
    private static Collection<String> members(Class<?> type) {
        Map<String, String> lines = new TreeMap<>();
        for (Field field : type.getDeclaredFields()) {
            if (isShown(field) && !field.isEnumConstant()) {
                lines.put(field.getName(), field(field));
            }
        }
        Stream.of(type.getDeclaredConstructors(), type.getDeclaredMethods()).flatMap(Stream::of)
            .filter(PublicApi::isShown)
            .filter(executable -> !type.isEnum() || !executable.getName().matches("values|valueOf"))
            .map(PublicApi::executable)
            .forEach(line -> lines.put(line.replaceFirst(".*?(\\w+\\()", "$1"), line));
        return lines.values();
    }

    private static boolean isShown(Member member) {
        return !member.isSynthetic() && (Modifier.isPublic(member.getModifiers())
            || Modifier.isProtected(member.getModifiers()));
    }

    private static String field(Field field) {
        String line = Modifier.toString(field.getModifiers()) + " " + field.getGenericType().getTypeName() + " "
            + field.getName();
        try {
            boolean constant = Modifier.isStatic(field.getModifiers()) && Modifier.isFinal(field.getModifiers());
            return constant ? line + " = " + field.get(null) : line;
        } catch (IllegalAccessException e) {
            throw new AssertionError(e);
        }
    }

    private static String executable(Executable executable) {
        List<String> parameters = new ArrayList<>();
        for (Parameter parameter : executable.getParameters()) {
            String type = parameter.getParameterizedType().getTypeName();
            parameters.add((parameter.isVarArgs() ? type.replaceFirst("\\[\\]$", "...") : type) + " "
                + parameter.getName());
        }
        int modifiers = executable.getModifiers() & (executable instanceof Constructor
            ? Modifier.constructorModifiers() : Modifier.methodModifiers());
        String result = executable instanceof Method method ? method.getGenericReturnType().getTypeName() + " " : "";
        String thrown = Arrays.stream(executable.getGenericExceptionTypes()).map(Type::getTypeName).sorted()
            .collect(Collectors.joining(", "));
        return Modifier.toString(modifiers) + " " + result + simpleName(executable) + "("
            + String.join(", ", parameters) + ")" + (thrown.isEmpty() ? "" : " throws " + thrown);
    }

    private static String simpleName(Executable executable) {
        return executable instanceof Constructor ? executable.getDeclaringClass().getSimpleName()
            : executable.getName();
    }
}
