package vex.client;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.InputStream;
import java.lang.reflect.Array;
import java.lang.reflect.Constructor;
import java.lang.reflect.Executable;
import java.lang.reflect.InvocationTargetException;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.lang.reflect.Parameter;
import java.math.BigInteger;
import java.net.URI;
import java.nio.file.Path;
import java.security.KeyStore;
import java.security.cert.X509Certificate;
import java.time.Instant;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.TreeSet;
import java.util.stream.Stream;
import javax.security.auth.Subject;
import javax.security.auth.callback.CallbackHandler;
import javax.security.auth.x500.X500Principal;
import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;
import vex.jni.TestStore;

/** Every public method says which of its arguments is null. */
@Tag("client")
class NullArgumentsTest {
    /** The parameters that may be null, as their Javadoc says. */
    private static final Set<String> NULLABLE = Set.of(
        "StoreParameter.store.protection", "StoreParameter.file.protection", "SigningProvider.store",
        "SigningProvider.login.subject", "SigningProvider.login.handler", "SigningProvider.setCallbackHandler.handler",
        "SigningProvider.equals.other", "CertificateInfo.equals.other");

    private static final Map<Class<?>, Object> VALUES = new HashMap<>();
    private static SigningClient client;

    @BeforeAll
    static void makeArguments() throws Exception {
        client = SigningClient.store("demo:").open();
        VALUES.put(SigningClient.class, client);
        VALUES.put(SigningClient.Builder.class, SigningClient.store("demo:"));
        VALUES.put(CertificateFilters.class, SigningClient.store("demo:"));
        VALUES.put(CertificateInfo.class, client.certificates().get(0));
        VALUES.put(SigningRequest.class, SigningRequest.raw("x"));
        VALUES.put(StoreParameter.class, StoreParameter.store("demo:", null));
        VALUES.put(SigningProvider.class, new SigningProvider());
        VALUES.put(String.class, "x");
        VALUES.put(byte[].class, new byte[32]);
        VALUES.put(char[].class, new char[] {'1'});
        VALUES.put(Path.class, Path.of("/proc/version"));
        VALUES.put(InputStream.class, new ByteArrayInputStream(new byte[] {1}));
        VALUES.put(Instant.class, Instant.EPOCH);
        VALUES.put(BigInteger.class, BigInteger.ONE);
        VALUES.put(X500Principal.class, new X500Principal("CN=x"));
        VALUES.put(X509Certificate.class, TestStore.identity("secp256r1", "CN=x", 1, 30, 0).certificate());
        VALUES.put(Digest.class, Digest.SHA_384);
        VALUES.put(KeyAlgorithm.class, KeyAlgorithm.EC);
        VALUES.put(KeyUsage.class, KeyUsage.CRL_SIGN);
        VALUES.put(CmsOption.class, CmsOption.INCLUDE_CHAIN);
        VALUES.put(KeyStore.class, KeyStore.getInstance("PKCS12"));
        VALUES.put(Subject.class, new Subject());
        VALUES.put(CallbackHandler.class, (CallbackHandler) callbacks -> { });
        VALUES.put(TimestampSource.class, TimestampSource.http(URI.create("http://localhost/")));
        VALUES.put(URI.class, URI.create("http://localhost/"));
        VALUES.put(KeyStore.ProtectionParameter.class, new KeyStore.PasswordProtection(null));
    }

    @AfterAll
    static void closeClient() {
        client.close();
    }

    private static List<Executable> executables() {
        List<Executable> all = new ArrayList<>();
        for (Class<?> type : PublicApi.classes()) {
            if (type.getPackageName().equals("vex.client")) {
                Stream.concat(Stream.of(type.getDeclaredConstructors()), Stream.of(type.getDeclaredMethods()))
                    .filter(executable -> Modifier.isPublic(executable.getModifiers()) && !executable.isSynthetic())
                    .filter(executable -> !(type.isEnum() && executable.getName().equals("valueOf")))
                    .forEach(all::add);
            }
        }
        return all;
    }

    private static Object value(Class<?> type) {
        if (type == int.class) {
            return 1;
        }
        if (type.isArray() && !type.getComponentType().isPrimitive()) {
            Object array = Array.newInstance(type.getComponentType(), 1);
            Array.set(array, 0, value(type.getComponentType()));
            return array;
        }
        Object value = VALUES.get(type);
        assertTrue(value != null, () -> "no example of " + type + "; add one to the test");
        return value;
    }

    private static String label(Executable executable, Parameter parameter) {
        String type = executable.getDeclaringClass().getSimpleName();
        String method = executable instanceof Constructor ? "" : "." + executable.getName();
        return type + method + "." + parameter.getName();
    }

    private static void requireRefusal(Executable executable, Object[] arguments, String expected, String label) {
        InvocationTargetException e = assertThrows(InvocationTargetException.class, () -> {
            if (executable instanceof Method method) {
                boolean isStatic = Modifier.isStatic(method.getModifiers());
                method.invoke(isStatic ? null : value(method.getDeclaringClass()), arguments);
            } else {
                ((Constructor<?>) executable).newInstance(arguments);
            }
        }, label);
        assertEquals(NullPointerException.class, e.getCause().getClass(), label);
        assertEquals(expected, e.getCause().getMessage(), label);
    }

    @Test
    void anExceptionNamesTheParameterThatIsNull() {
        Set<String> nullable = new TreeSet<>();
        int refused = 0;
        for (Executable executable : executables()) {
            Parameter[] parameters = executable.getParameters();
            for (int i = 0; i < parameters.length; ++i) {
                String label = label(executable, parameters[i]);
                if (parameters[i].getType().isPrimitive()) {
                    continue;
                }
                if (NULLABLE.contains(label)) {
                    nullable.add(label);
                    continue;
                }
                Object[] arguments = Stream.of(parameters).map(parameter -> value(parameter.getType())).toArray();
                Object good = arguments[i];
                arguments[i] = null;
                requireRefusal(executable, arguments, parameters[i].getName(), label);
                ++refused;
                if (good instanceof Object[] array) {
                    array[0] = null;
                    arguments[i] = array;
                    requireRefusal(executable, arguments, parameters[i].getName() + "[0]", label + "[0]");
                }
            }
        }
        assertTrue(refused > 40, "only " + refused + " parameters were tried");
        assertEquals(new TreeSet<>(NULLABLE), nullable, "each exception is needed");
    }
}
